// A tree of blocks is taken apart without recursion: blocks that are to go are chained by their
// pointers to the parent, so the depth of an image's tree costs neither stack nor memory.
#include "capsule/blocks/file_block.h"

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/file_extraction.h"
#include "capsule/partition/partition.h"

namespace capsule {

namespace {

// The first element of `list`, unlinked from it.
template <typename Element>
Element* TakeFirst(CpsList& list) {
  auto* element = static_cast<Element*>(list.GetAt(0));
  list.RemoveAt(0);
  return element;
}

}  // namespace

CapsuleFileBlock::CapsuleFileBlock(CapsuleFileBlock* parent, CapsulePartition& partition)
    : m_pParent(parent), m_pPartition(&partition), m_DirectoryType(partition.GetPartitionType()) {
  m_DirectoryEntry.SetFileBlock(this);
}

CapsuleFileBlock::~CapsuleFileBlock() { Close(); }

// Allocates nothing, so closing cannot fail.
void CapsuleFileBlock::Close() {
  CapsuleFileBlock* first = nullptr;
  TakeChildren(&first);
  while (first != nullptr) {
    const std::unique_ptr<CapsuleFileBlock> block(first);
    first = block->m_pParent;
    block->TakeChildren(&first);
  }
  ForgetDataBlocks();
}

// Moves the children to the front of the chain.
void CapsuleFileBlock::TakeChildren(CapsuleFileBlock** first) {
  while (m_FileList.GetCount() > 0) {
    auto* child = TakeFirst<CapsuleFileBlock>(m_FileList);
    if (child == nullptr) continue;
    child->m_pParent = *first;
    *first = child;
  }
}

void CapsuleFileBlock::ForgetDataBlocks() {
  m_bDataBlocksPending = false;
  m_bNtfsDataPending = false;
  m_pExtraction.reset();
  m_pHistoryCopy.reset();
  while (m_DataBlocks.GetCount() > 0) {
    const std::unique_ptr<CapsuleFileDataBlock> block(
        TakeFirst<CapsuleFileDataBlock>(m_DataBlocks));
  }
}

void CapsuleFileBlock::InsertFileBlock(CapsuleFileBlock* child) {
  if (child != nullptr && child != this) m_FileList.Append(child);
}

CpsList& CapsuleFileBlock::FileList() { return m_FileList; }

CapsuleFileBlock* CapsuleFileBlock::ParentFileBlock() { return m_pParent; }

CapsuleDirectoryEntry& CapsuleFileBlock::GetDirectoryEntry() { return m_DirectoryEntry; }

_DirectoryEntry* CapsuleFileBlock::GetDirectoryPointer() { return m_DirectoryEntry.GetRecord(); }

CapsuleFileBlock::DirectoryType CapsuleFileBlock::GetDirectoryType() { return m_DirectoryType; }

char* CapsuleFileBlock::GetLongFileName() { return m_DirectoryEntry.LongFileName().GetRead(); }

int CapsuleFileBlock::GetLongFileNameLength() { return m_DirectoryEntry.LongFileName().Size(); }

int CapsuleFileBlock::GetFileBlockStartOffset() const { return m_nStartOffset; }

int CapsuleFileBlock::GetFileBlockEndOffset() const { return m_nEndOffset; }

int CapsuleFileBlock::GetDUPDATAOffset() const { return m_nDUPDATAOffset; }

int CapsuleFileBlock::GetNTFSDataBlockStart() const { return m_nNTFSDataBlockStart; }

char* CapsuleFileBlock::GetParentPartitionHistory() {
  return m_pPartition->GetCompressionHistory();
}

int CapsuleFileBlock::IsEndingMark() { return m_DirectoryEntry.IsEmpty(); }

int CapsuleFileBlock::operator==(const CString& s) const { return m_DirectoryEntry == s; }

// NOLINTNEXTLINE(performance-unnecessary-value-param): the class interface takes it by value
void CapsuleFileBlock::PrintYourself(CString /*s*/) {}

}  // namespace capsule
