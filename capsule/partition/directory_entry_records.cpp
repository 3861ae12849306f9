// The records of one directory entry, between memory and the image. A group goes out in one write
// and comes in with one read: the longest group is 64 records of 40 bytes.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "capsule/partition/directory_entry.h"
#include "capsule/partition/entry_group.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/state/library_state.h"

namespace capsule {

namespace {

constexpr size_t kMaxChainBytes = size_t{kMaxLongNamePieces} * kDirRecordSize;

template <typename Bytes>
void Append(std::vector<unsigned char>& out, const Bytes& bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

// Writes `bytes` at `offset` and counts them; false, with nothing counted, when that failed, there
// is no counter, or the image would grow too long.
bool WriteRecords(int fd, int64_t offset, std::span<const unsigned char> bytes, int* count) {
  return count != nullptr && FitsImage(offset, static_cast<int64_t>(bytes.size())) &&
         platform::WriteAt(fd, bytes.data(), bytes.size(), offset) &&
         Advance(count, static_cast<int64_t>(bytes.size()));
}

}  // namespace

std::vector<unsigned char> CapsuleDirectoryEntry::EncodeEntries(DirectoryType t) const {
  std::vector<unsigned char> bytes;
  const auto header = EncodeMiniHeader(m_Record.Header);
  for (const LongEntry& entry : m_LongEntries) {
    Append(bytes, entry);
    Append(bytes, header);
  }
  Append(bytes, EncodeShortEntry(t == DirTypeFat16 ? m_Record.FirstEntry : m_Record.OtherEntry));
  return bytes;
}

std::vector<unsigned char> CapsuleDirectoryEntry::Encode(DirectoryType t) const {
  std::vector<unsigned char> group;
  Append(group, EncodeMiniHeader(m_Record.Header));
  Append(group, EncodeEntries(t));
  return group;
}

int CapsuleDirectoryEntry::Write(DirectoryType t, int fd, int offset, int* count) {
  if (fd == -1) return -1;
  return platform::OrOutOfMemory(-1, [&] {
    const std::vector<unsigned char> group = Encode(t);
    RemoveCPtrArray();
    return WriteRecords(fd, offset, group, count) ? 0 : -1;
  });
}

int CapsuleDirectoryEntry::WriteMiniHeader(int fd, int offset, int* count) {
  return WriteRecords(fd, offset, EncodeMiniHeader(m_Record.Header), count) ? 0 : -1;
}

int CapsuleDirectoryEntry::WriteDirectoryEntry(DirectoryType t, int fd, int offset, int* count) {
  return platform::OrOutOfMemory(-1, [&] {
    const std::vector<unsigned char> entries = EncodeEntries(t);
    RemoveCPtrArray();
    return WriteRecords(fd, offset, entries, count) ? 1 : -1;
  });
}

int CapsuleDirectoryEntry::WriteZeroDirectoryEntry(int fd, int offset, int* count) {
  return WriteRecords(fd, offset, EncodeZeroEntry(), count) ? 0 : -1;
}

int CapsuleDirectoryEntry::SetZeroDirEntry(int fd, int offset, int* count, int& /*flag*/) {
  return platform::OrOutOfMemory(-1, [&] {
    int32_t& pending = CurrentLibraryState().dirLevelsToClose;
    if (pending > 0) {
      std::vector<unsigned char> zeros;
      for (int32_t i = 0; i < pending; ++i) Append(zeros, EncodeZeroEntry());
      if (!WriteRecords(fd, offset, zeros, count)) return -1;
    }
    pending = 0;
    return 0;
  });
}

int CapsuleDirectoryEntry::Read(DirectoryType t, int fd, int offset, int* count) {
  m_DirectoryType = t;
  if (t == DirTypeNtfs) return ReadNtfsHeader(fd, offset);
  return platform::OrOutOfMemory(-1, [&] { return ReadGroup(t, fd, offset, count); });
}

int CapsuleDirectoryEntry::ReadGroup(DirectoryType t, int fd, int offset, int* count) {
  std::array<unsigned char, kLongestGroup> group;
  const int64_t got = platform::ReadAt(fd, group.data(), group.size(), offset);
  const std::span<const unsigned char> bytes(group.data(), got > 0 ? static_cast<size_t>(got) : 0);
  if (bytes.size() < kMiniHeaderSize) return -1;
  m_Record.Header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
  if (!Advance(count, kMiniHeaderSize) || bytes.size() < kDirRecordSize) return -1;
  const auto first = bytes.subspan<kMiniHeaderSize, kDirEntrySize>();
  _ShortDirEntry& entry = EntryFor(t);
  entry = DecodeShortEntry(first);
  if (!Advance(count, kDirEntrySize)) return -1;
  m_nReadOffset = int64_t{offset} + kDirRecordSize;
  m_Record.LongNameLength = 0;
  m_Record.Next = nullptr;
  m_LongFileName.Flush();

  if (EntryGroup::IsPiece(first, true)) {
    std::array<unsigned char, kDirEntrySize> record;
    std::copy(first.begin(), first.end(), record.begin());
    if (!TakeLongNameChain(bytes.subspan(kDirRecordSize), record.data(), count)) return -1;
    entry = DecodeShortEntry(record);
    if (RoleOf(entry) == EntryRole::Closing) return -1;
  }
  PopulateOtherStructure(t);
  if (entry.Name[0] != 0) ShortName(t);
  return 0;
}

int CapsuleDirectoryEntry::LongFileNameProcess(int size, void* entry, int fd, int* count) {
  if (size != static_cast<int>(kDirEntrySize) || entry == nullptr) return -1;
  std::array<unsigned char, kMaxChainBytes> chain;
  const int64_t got = platform::ReadAt(fd, chain.data(), chain.size(), m_nReadOffset);
  if (got < 0) return -1;
  return TakeLongNameChain({chain.data(), static_cast<size_t>(got)}, entry, count) ? 0 : -1;
}

bool CapsuleDirectoryEntry::TakeLongNameChain(std::span<const unsigned char> records, void* entry,
                                              int* count) {
  const std::span<unsigned char, kDirEntrySize> record(static_cast<unsigned char*>(entry),
                                                       kDirEntrySize);
  for (int piece = 0; piece < kMaxLongNamePieces; ++piece) {
    const auto units = LongNameUnits(record);
    if (m_LongFileName.Add(units.data(), static_cast<int>(units.size())) == 0) return false;
    if (records.size() < kDirRecordSize) return false;
    m_Record.Header = DecodeMiniHeader(records.first<kMiniHeaderSize>());
    if (m_Record.Header.Type != kRecordDirectory || !Advance(count, kDirRecordSize)) return false;
    const auto next = records.subspan(kMiniHeaderSize, kDirEntrySize);
    std::copy(next.begin(), next.end(), record.begin());
    m_nReadOffset += kDirRecordSize;
    if (!EntryGroup::IsPiece(record, false)) {
      FitLongName();
      return true;
    }
    records = records.subspan(kDirRecordSize);
  }
  return false;
}

void CapsuleDirectoryEntry::FormatLongFileName(const unsigned short* name, unsigned char length) {
  if (name == nullptr) return;
  const std::span<const unsigned short> units(name, length);
  const size_t full = length / kPieceUnits;
  const auto addPiece = [this](std::span<const unsigned short> piece) {
    std::array<unsigned char, kPieceNameBytes> bytes;
    bytes.fill(0xFF);
    for (size_t i = 0; i < piece.size(); ++i) platform::StoreLe16(&bytes[2 * i], piece[i]);
    const int size = static_cast<int>(bytes.size());
    if (m_LongFileName.Add(bytes.data(), size) != size) throw std::bad_alloc();
  };
  addPiece(units.subspan(full * kPieceUnits));
  for (size_t i = full; i > 0; --i) addPiece(units.subspan((i - 1) * kPieceUnits, kPieceUnits));
  FitLongName();
}

void CapsuleDirectoryEntry::FitLongName() {
  const int length = m_LongFileName.Size();
  void* fitting = length > 0 ? std::malloc(static_cast<size_t>(length)) : nullptr;
  if (fitting == nullptr) return;
  std::memcpy(fitting, m_LongFileName.GetRead(), static_cast<size_t>(length));
  m_LongFileName.UseThisBuffer(static_cast<const char*>(fitting), length, 0, length);
}  // NOLINT(clang-analyzer-unix.Malloc): the buffer owns it now

}  // namespace capsule
