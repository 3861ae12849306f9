// Reading in NTFS partitions. A file's block takes its FILE record and leaves the data behind it
// alone; a directory's block takes all records up to the next entry, to know its children.
//
// What one block takes ends with a record that decodes: one that does not fails the block, since
// children would be lost unseen.
#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/blocks/file_extraction.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/ntfs_file.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/out_of_memory.h"

namespace capsule {
namespace {

using NtfsBytes = std::array<unsigned char, kNtfsHeaderSize>;

bool ReadNtfsHeader(int fd, int offset, _NTFSMiniHeader* header) {
  NtfsBytes bytes;
  CpsReaderLock reader;
  if (reader.ReadAt(fd, bytes.data(), kNtfsHeaderSize, offset) !=
      static_cast<int>(kNtfsHeaderSize)) {
    return false;
  }
  *header = DecodeNtfsHeader(bytes);
  return true;
}

bool Skip(int* offset, const _NTFSMiniHeader& header) {
  return Advance(offset, NtfsRecordSize(header));
}

}  // namespace

int CapsuleFileBlock::ReadNtfsEntry(int fd, int* pOffset, CapsuleFile& file, char* history) {
  const bool directory = m_DirectoryEntry.NTFSIsDirectory() != 0;
  for (bool first = true;; first = false) {
    _NTFSMiniHeader header;
    if (!ReadNtfsHeader(fd, *pOffset, &header)) return -1;
    if (!first && BeginsNtfsEntry(header.RecordType)) return 0;
    const bool record = IsNtfsFileRecord(header.RecordType) || IsNtfsData(header.RecordType);
    if (!directory && header.RecordType == kNtfsFileRecord) {
      return TakeNtfsRecord(fd, pOffset, file, history) == 0
                 ? TakeCompanions(fd, *pOffset, file, history)
                 : -1;
    }
    if (directory && record) {
      if (TakeNtfsRecord(fd, pOffset, file, history) != 0) return -1;
    } else if (!Skip(pOffset, header)) {
      return -1;
    }
  }
}

// Decodes the record at `*pOffset` and tells the entry what it holds.
int CapsuleFileBlock::TakeNtfsRecord(int fd, int* pOffset, CapsuleFile& file, char* history) {
  CapsuleFileDataBlock block(CapsuleDirectoryEntry::DirTypeNtfs,
                             m_DirectoryEntry.NTFSIsDirectory());
  if (block.ReadOrThrow(fd, *pOffset, pOffset) != 0) return -1;
  if (block.DecompressOrThrow(&file, history) != 0 || block.IsDecompressed() == 0) return -1;
  if (block.NTFSIsFileRecord() != 0) {
    const std::span<unsigned char> records = block.Uncompressed();
    m_DirectoryEntry.FileRecordtoDirectoryEntry(records.data(), static_cast<long>(records.size()));
  } else {
    block.ReadDirectoryBlock(&m_DirectoryEntry);
  }
  return 0;
}

// A file whose attributes do not fit one FILE record may have further ones behind it.
int CapsuleFileBlock::TakeCompanions(int fd, int offset, CapsuleFile& file, char* history) {
  m_nNTFSDataBlockStart = offset;
  m_bDataBlocksPending = true;
  if (!m_DirectoryEntry.HasAttributeList()) return 0;
  _NTFSMiniHeader header;
  while (ReadNtfsHeader(fd, offset, &header) && IsNtfsCompanion(header.RecordType)) {
    if (TakeNtfsRecord(fd, &offset, file, history) != 0) return -1;
  }
  return 0;
}

// One data block for each 16384 bytes of the file, as far as the image could hold them; those whose
// records are not there are not valid.
void CapsuleFileBlock::PrepareNtfsDataBlocks(int fd) {
  const int64_t size = m_DirectoryEntry.FileSize();
  const int64_t room = std::max<int64_t>(platform::FileLength(fd) - m_nNTFSDataBlockStart, 0);
  const int64_t count =
      std::min((size + kNtfsChunkSize - 1) / kNtfsChunkSize, room / kNtfsHeaderSize + 1);
  for (int64_t i = 0; i < count; ++i) {
    auto block = std::make_unique<CapsuleFileDataBlock>(CapsuleDirectoryEntry::DirTypeNtfs,
                                                        m_DirectoryEntry.NTFSIsDirectory());
    m_DataBlocks.Append(block.get());
    static_cast<void>(block.release());
  }
  Extraction();
  m_bNtfsDataPending = true;
}

// Finds the file's data: in its FILE record, or in the records behind it. False when records are
// missing.
bool CapsuleFileBlock::LocateNtfsData(CapsuleFile* file, int start) {
  ReleaseOutside(0, -1);
  LocateResidentData(file);
  FileExtraction& extraction = Extraction();
  extraction = {};
  if (HoldsResidentData()) {
    m_bNtfsDataPending = false;
    return true;
  }
  const bool compressed = file->IsCompressed() != 0;
  const int fd = file->GetImageFileHandle();
  bool found = true;
  const int count = m_DataBlocks.GetCount();
  for (int i = 0; i < count; ++i) {
    CapsuleFileDataBlock* block = DataBlockAt(i);
    found = found && ReadNtfsData(fd, block, &start);
    if (!found) block->IsValid(0);
    const int record = found ? block->GetDataOffset() - static_cast<int>(kNtfsHeaderSize) : start;
    extraction.places.push_back({record, extraction.end});
    if (found) extraction.end += UncompressedLength(block->GetMiniHeader(), compressed);
  }
  m_bNtfsDataPending = false;
  return found;
}

// The next data record from `*offset` on; FILE records in between are companions of the file's own.
bool CapsuleFileBlock::ReadNtfsData(int fd, CapsuleFileDataBlock* block, int* offset) {
  _NTFSMiniHeader header{};  // of no record when there is none
  while (ReadNtfsHeader(fd, *offset, &header) && IsNtfsCompanion(header.RecordType)) {
    if (!Skip(offset, header)) return false;
  }
  return IsNtfsData(header.RecordType) && block->Read(fd, *offset, offset) == 0;
}

bool CapsuleFileBlock::ReadNTFSDataBlocks(CapsuleFile* file, CapsuleFileBlock* from) {
  if (file == nullptr || from == nullptr) return false;
  return platform::OrOutOfMemory(false, [&] {
    PrepareDataBlocks(file->GetImageFileHandle());
    return LocateNtfsData(file, from->m_nNTFSDataBlockStart);
  });
}

bool CapsuleFileBlock::IsResidentData(CapsuleFile* file) {
  return platform::OrOutOfMemory(true, [&] { return LocateResidentData(file); });
}

bool CapsuleFileBlock::LocateResidentData(CapsuleFile* file) {
  if (file == nullptr || !m_pInitialHistory) return true;
  // On a copy: a record that is damaged must not spoil the history for others.
  std::vector<unsigned char> history = *m_pInitialHistory;
  auto* area = static_cast<char*>(static_cast<void*>(history.data()));
  CapsuleFileDataBlock record(m_DirectoryType, m_DirectoryEntry.NTFSIsDirectory());
  int position = m_nStartOffset;
  if (record.Read(file->GetImageFileHandle(), position, &position) != 0) return true;
  if (record.DecompressOrThrow(file, area) != 0) return true;
  const std::span<unsigned char> bytes = record.Uncompressed();
  if (bytes.size() < kFileRecordSize) return true;
  const auto data = ResidentData(bytes.first<kFileRecordSize>());
  if (data) KeepResidentData(*data);
  return data.has_value();
}

void CapsuleFileBlock::KeepResidentData(std::span<const unsigned char> value) {
  CapsuleFileDataBlock* first = DataBlockAt(0);
  if (first == nullptr) return;
  first->AssignUncompressedBuffer(value.data(), static_cast<int>(value.size()));
  first->SetIsResident(true);
}

}  // namespace capsule
