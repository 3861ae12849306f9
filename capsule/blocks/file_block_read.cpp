// Reading a file block touches its directory entry only. The data blocks of a file are prepared
// when somebody first asks for them, one for each record that is really there: what an entry
// claims costs nothing.
#include <algorithm>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/blocks/file_extraction.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/out_of_memory.h"

namespace capsule {
namespace {

CapsuleFileBlock* BlockAt(const CpsList& list, int index) {
  return static_cast<CapsuleFileBlock*>(list.GetAt(index));
}

// Appends the blocks without children at and below `root`, in order.
void AppendLeaves(CapsuleFileBlock* root, std::vector<CapsuleFileBlock*>* leaves) {
  std::vector<CapsuleFileBlock*> pending{root};
  while (!pending.empty()) {
    CapsuleFileBlock* block = pending.back();
    pending.pop_back();
    const int children = block->FileList().GetCount();
    if (children == 0) leaves->push_back(block);
    for (int i = children; i > 0; --i) {
      if (CapsuleFileBlock* child = BlockAt(block->FileList(), i - 1)) pending.push_back(child);
    }
  }
}

int SetUpEach(const std::vector<CapsuleFileBlock*>& blocks, char* history, int size) {
  const auto fails = [&](CapsuleFileBlock* block) {
    return block->SetUpHistoryBuffer(history, size) != 0;
  };
  return std::any_of(blocks.begin(), blocks.end(), fails) ? -1 : 0;
}

}  // namespace

int CapsuleFileBlock::Read(DirectoryType type, int fd, int offset, int* pOffset, CapsuleFile& file,
                           char* history) {
  if (pOffset == nullptr) return -1;
  try {
    ForgetDataBlocks();
    m_nStartOffset = offset;
    if (m_DirectoryEntry.Read(type, fd, offset, pOffset) != 0) return -1;
    m_nDUPDATAOffset = *pOffset;
    if (type == CapsuleDirectoryEntry::DirTypeNtfs) {
      return ReadNtfsEntry(fd, pOffset, file, history);
    }
    m_nEndOffset = *pOffset - 1;
    m_bDataBlocksPending = m_DirectoryEntry.IsDirectory() == 0 && m_DirectoryEntry.IsEmpty() == 0;
    return 0;
  } catch (...) {
    return -1;
  }
}

CpsList& CapsuleFileBlock::GetFileDataBlockList() {
  try {
    PrepareDataBlocks(m_pPartition->GetCapsuleFile().GetImageFileHandle());
  } catch (const std::bad_alloc&) {
    // They are prepared when they are asked for again.
  }
  return m_DataBlocks;
}

CapsuleFileDataBlock* CapsuleFileBlock::DataBlockAt(int index) const {
  return static_cast<CapsuleFileDataBlock*>(m_DataBlocks.GetAt(index));
}

FileExtraction& CapsuleFileBlock::Extraction() {
  if (!m_pExtraction) m_pExtraction = std::make_unique<FileExtraction>();
  return *m_pExtraction;
}

// All or none: some of them would pass for the whole file.
void CapsuleFileBlock::PrepareDataBlocks(int fd) {
  if (!m_bDataBlocksPending || fd <= 0) return;
  const bool ntfs = m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs;
  try {
    ntfs ? PrepareNtfsDataBlocks(fd) : PrepareFatDataBlocks(fd);
    m_bDataBlocksPending = false;
  } catch (const std::bad_alloc&) {
    ForgetDataBlocks();
    m_bDataBlocksPending = true;
    throw;
  }
}

void CapsuleFileBlock::PrepareFatDataBlocks(int fd) {
  FileExtraction& extraction = Extraction();
  const bool compressed = m_pPartition->GetCapsuleFile().IsCompressed() != 0;
  const int64_t size = m_DirectoryEntry.FileSize();
  CpsReaderLock reader;
  int at = m_nDUPDATAOffset;
  bool more = true;
  while (more && extraction.end < size) {
    unsigned char bytes[kMiniHeaderSize];
    if (reader.ReadAt(fd, bytes, sizeof bytes, at) != static_cast<int>(sizeof bytes)) break;
    const _MiniHeader header = DecodeMiniHeader(bytes);
    if (header.Type != kRecordDataBlock) break;
    const DataRecord record = DataRecordOf(header, {RecordKind::Fat, compressed});
    extraction.places.push_back({at, extraction.end});
    extraction.end += record.chunk;
    auto block = std::make_unique<CapsuleFileDataBlock>(m_DirectoryType, 0);
    m_DataBlocks.Append(block.get());
    static_cast<void>(block.release());
    more = record.MayGoOn() && Advance(&at, record.Size());
  }
}

bool CapsuleFileBlock::ReadDataBlocks(int fd, int offset) {
  try {
    PrepareDataBlocks(fd);
    Extraction().decompressed.clear();  // reading a record releases its chunk
    const int count = m_DataBlocks.GetCount();
    int position = offset;
    for (int i = 0; i < count; ++i) {
      CapsuleFileDataBlock* block = DataBlockAt(i);
      if (block == nullptr || block->Read(fd, position, &position) != 0) return false;
    }
    LocateDataBlocks();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Takes the places from the headers of data blocks that have been read.
void CapsuleFileBlock::LocateDataBlocks() {
  const bool compressed = m_pPartition->GetCapsuleFile().IsCompressed() != 0;
  std::vector<FileExtraction::Place> places;
  int64_t end = 0;
  const bool ntfs = m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs;
  const uint32_t headerSize = ntfs ? kNtfsHeaderSize : kMiniHeaderSize;
  const int count = m_DataBlocks.GetCount();
  for (int i = 0; i < count; ++i) {
    CapsuleFileDataBlock* block = DataBlockAt(i);
    if (block == nullptr) break;
    const auto record = block->GetDataOffset() - static_cast<int32_t>(headerSize);
    places.push_back({record, end});
    if (block->IsValid() != 0) end += UncompressedLength(block->GetMiniHeader(), compressed);
  }
  FileExtraction& extraction = Extraction();
  if (!extraction.places.empty() && !places.empty() &&
      extraction.places.front().record != places.front().record) {
    ReleaseOutside(0, -1);
    extraction = {};
  }
  extraction.places = std::move(places);
  extraction.end = end;
}

// The list is handed out: blocks may have been added or removed.
void CapsuleFileBlock::SyncPlaces() {
  if (Extraction().places.size() != static_cast<size_t>(m_DataBlocks.GetCount())) {
    LocateDataBlocks();
  }
}

int CapsuleFileBlock::SetUpDecompressHeader(CapsuleFile&, char* history, int size) {
  return platform::OrOutOfMemory(-1, [&] {
    std::vector<CapsuleFileBlock*> leaves;
    AppendLeaves(this, &leaves);
    return SetUpEach(leaves, history, size);
  });
}

int CapsuleFileBlock::SetUpHistories(const CpsList& blocks, char* history, int size) {
  return platform::OrOutOfMemory(-1, [&] {
    std::vector<CapsuleFileBlock*> leaves;
    for (int i = 0; CapsuleFileBlock* block = BlockAt(blocks, i); ++i) {
      AppendLeaves(block, &leaves);
    }
    return SetUpEach(leaves, history, size);
  });
}

int CapsuleFileBlock::SetUpHistoryBuffer(char* history, int size) {
  if (m_pSharedHistory != nullptr || history == nullptr || size <= 0) return -1;
  try {
    m_pInitialHistory = m_pPartition->HistorySnapshot(history, size);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  m_pSharedHistory = history;
  m_nHistorySize = size;
  return 0;
}

int CapsuleFileBlock::IsHeaderCreated(int) { return 0; }

}  // namespace capsule
