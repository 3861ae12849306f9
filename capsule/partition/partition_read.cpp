// A section is read in the order of the index: each offset gives one block, a directory becomes
// the parent of what follows it, and a zero entry goes back to the directory above.
#include <algorithm>
#include <memory>
#include <new>
#include <span>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/file_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/image_index.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/directory_support.h"
#include "capsule/partition/entry_group.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"

namespace capsule {
namespace {

constexpr int kNoOffset = -1;

CapsuleFileBlock* BlockAt(const CpsList& list, int index) {
  return static_cast<CapsuleFileBlock*>(list.GetAt(index));
}

// The first block of `list` whose short text is `name`, or null.
CapsuleFileBlock* FindBlock(const CpsList& list, const CString& name) {
  for (int i = 0; CapsuleFileBlock* block = BlockAt(list, i); ++i) {
    if (*block == name) return block;
  }
  return nullptr;
}

}  // namespace

int CapsulePartition::Read(DirectoryType t, int fd, int offset, int* /*pos*/) {
  if (m_pRootBlock != nullptr || m_FileBlocks.GetCount() > 0) return -1;
  m_nStartOffset = offset;
  m_PartitionType = t;
  try {
    return t == CapsuleDirectoryEntry::DirTypeNtfs ? ReadNtfsSection(fd) : ReadFatSection(fd);
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

int CapsulePartition::ReadFatSection(int fd) {
  CpsReaderLock reader;
  if (reader.ReadAt(fd, m_SectorArea, kSectorAreaSize, m_nStartOffset) !=
      static_cast<int>(kSectorAreaSize)) {
    return -1;
  }
  ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
  if (index == nullptr) return -1;
  CapsuleFileBlock* directory = nullptr;
  int position = kNoOffset;
  int nextSection = kNoOffset;
  do {
    position = index->GetNextFileOffset();
    if (position == kNoOffset) return 0;
    auto block = std::make_unique<CapsuleFileBlock>(directory, *this);
    if (block->Read(m_PartitionType, fd, position, &position, *m_pCapsuleFile, nullptr) != 0) {
      return -1;
    }
    directory = PlaceBlock(std::move(block), directory);
    nextSection = index->PeekNextPartitionOffset();
  } while (position < nextSection || nextSection == kNoOffset);
  return 0;
}

// Puts `block` below `directory` (null: at the top level); the directory that the next one is in.
CapsuleFileBlock* CapsulePartition::PlaceBlock(std::unique_ptr<CapsuleFileBlock> block,
                                               CapsuleFileBlock* directory) {
  const EntryRole role = RoleOf(block->GetDirectoryEntry().EntryInUse());
  if (role == EntryRole::Closing) {
    return directory == nullptr ? nullptr : directory->ParentFileBlock();
  }
  CpsList& siblings = directory == nullptr ? m_FileBlocks : directory->FileList();
  siblings.Append(block.get());
  CapsuleFileBlock* placed = block.release();
  return role == EntryRole::Folder ? placed : directory;
}

void CapsulePartition::SetUpHistoryBuffer() { static_cast<void>(SetUpHistories()); }

bool CapsulePartition::SetUpHistories() {
  const uint16_t size = LzsSizeOfDecompressionHistory();
  if (!m_pDecompressionHistory) {
    m_pDecompressionHistory.reset(new (std::nothrow) unsigned char[size]());
    if (!m_pDecompressionHistory) return false;
    LzsInitDecompressionHistory(m_pDecompressionHistory.get());
  }
  auto* history = static_cast<char*>(static_cast<void*>(m_pDecompressionHistory.get()));
  return CapsuleFileBlock::SetUpHistories(m_FileBlocks, history, size) == 0;
}

std::shared_ptr<const std::vector<unsigned char>> CapsulePartition::HistorySnapshot(
    const char* history, int size) {
  if (history == nullptr || size < 0) return nullptr;
  const std::span bytes(static_cast<const unsigned char*>(static_cast<const void*>(history)),
                        static_cast<size_t>(size));
  const auto& kept = m_pHistorySnapshot;
  if (!kept || !std::equal(bytes.begin(), bytes.end(), kept->begin(), kept->end())) {
    m_pHistorySnapshot =
        std::make_shared<const std::vector<unsigned char>>(bytes.begin(), bytes.end());
  }
  return m_pHistorySnapshot;
}

int CapsulePartition::ReadDataBlocks(int fd, int offset, int* pos) {
  if (pos == nullptr) return -1;
  *pos = offset;
  CpsReaderLock reader;
  while (true) {
    unsigned char bytes[kMiniHeaderSize];
    if (reader.ReadAt(fd, bytes, sizeof bytes, *pos) != static_cast<int>(sizeof bytes)) return 0;
    if (DecodeMiniHeader(bytes).Type != kRecordDataBlock) return 0;
    CapsuleFileDataBlock block(m_PartitionType, 0);
    if (block.Read(fd, *pos, pos) != 0) return -1;
    if (block.IsValid() == 0) return 0;
  }
}

_DirectoryEntry* CapsulePartition::GetDirectoryEntry(DirectorySupport& path) {
  if (path.IsRoot() != 0) return SetupDirectoryEntry(m_FileBlocks);
  const CString* segment = path[0];
  if (segment == nullptr) return nullptr;
  int next = 1;
  if (segment->empty()) segment = path[next++];
  CpsList* list = &m_FileBlocks;
  for (; segment != nullptr; segment = path[next++]) {
    CapsuleFileBlock* block = FindBlock(*list, *segment);
    if (block == nullptr) return nullptr;
    list = &block->FileList();
  }
  return list == &m_FileBlocks ? nullptr : SetupDirectoryEntry(*list);
}

_DirectoryEntry* CapsulePartition::SetupDirectoryEntry(CpsList& blocks) {
  _DirectoryEntry* first = nullptr;
  _DirectoryEntry* previous = nullptr;
  for (int i = 0; CapsuleFileBlock* block = BlockAt(blocks, i); ++i) {
    CapsuleBuffer& name = block->GetDirectoryEntry().LongFileName();
    _DirectoryEntry* record = block->GetDirectoryPointer();
    record->LongName = static_cast<unsigned char*>(static_cast<void*>(name.GetRead()));
    record->LongNameLength = static_cast<int32_t>(name.GetWrite() - name.GetRead());
    record->Next = nullptr;
    if (previous == nullptr) {
      first = record;
    } else {
      previous->Next = record;
    }
    previous = record;
  }
  return first;
}

}  // namespace capsule
