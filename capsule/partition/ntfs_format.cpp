// Every step of a walk is first taken on a copy of the reader. The walk itself goes on only when
// the step fits, so a damaged length ends the walk instead of leading it elsewhere.
#include "capsule/partition/ntfs_format.h"

#include <algorithm>
#include <cstring>

#include "capsule/platform/byte_reader.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

using platform::ByteReader;
using platform::LoadLe16;
using platform::LoadLe32;

using Record = std::span<const unsigned char, kFileRecordSize>;

constexpr size_t kSectorSize = 512;
constexpr size_t kResidentHeader = 24;
constexpr size_t kNonResidentHeader = 64;
constexpr size_t kFixedSequence = 42;
constexpr size_t kFixedFirstAttribute = 48;
constexpr size_t kBlockPosition = 16;  // of an index block: where it lies in its stream

// Where a FILE record keeps its update sequence and its first attribute.
struct FileRecordLayout {
  size_t sequence = kFixedSequence;
  size_t firstAttribute = kFixedFirstAttribute;
  bool stated = false;
};

FileRecordLayout LayoutOf(Record record) {
  const size_t sequence = LoadLe16(&record[4]);
  const size_t words = LoadLe16(&record[6]);
  const size_t first = LoadLe16(&record[20]);
  const bool plausible = words == 1 + kFileRecordSize / kSectorSize && sequence % 2 == 0 &&
                         sequence >= kFixedSequence && first % 8 == 0 &&
                         sequence + 2 * words <= first && first + 8 <= kSectorSize - 2;
  return plausible ? FileRecordLayout{sequence, first, true} : FileRecordLayout{};
}

void CopyWord(std::span<unsigned char> bytes, size_t to, size_t from) {
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(from), 2,
              bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

// Walks index entries: reference (8), entry length (2), key length (2), flags (1), 3 bytes, key,
// which begins with the reference to the parent.
void VisitIndexEntries(ByteReader entries, const std::function<void(uint32_t)>& visit) {
  while (true) {
    ByteReader peek = entries;
    const uint32_t reference = peek.U32();
    peek.Skip(4);
    const uint16_t length = peek.U16();
    peek.Skip(2);
    const uint8_t flags = peek.U8();
    peek.Skip(3);
    const uint32_t parent = peek.U32();
    if (!peek.Ok() || flags >= 2 || length == 0) return;
    entries.Skip(length);
    if (!entries.Ok()) return;
    if (reference != parent) visit(reference);
  }
}

void VisitIndexBlock(std::span<unsigned char> block, const std::function<void(uint32_t)>& visit) {
  for (size_t sector = 0; sector < block.size() / kSectorSize; ++sector) {
    CopyWord(block, sector * kSectorSize + kSectorSize - 2, kFixedSequence + 2 * sector);
  }
  ByteReader reader(block);
  reader.Skip(size_t{24} + LoadLe16(&block[24]));
  VisitIndexEntries(reader, visit);
}

}  // namespace

_NTFSMiniHeader DecodeNtfsHeader(std::span<const unsigned char, kNtfsHeaderSize> bytes) {
  _NTFSMiniHeader header{};
  ByteReader reader(bytes);
  header.Opaque0 = reader.U8();
  header.LastFlag = reader.U8();
  header.RecordType = reader.U32();
  std::ranges::copy(reader.Take(sizeof header.Opaque6), header.Opaque6);
  header.UncompressedLength = reader.U16();
  header.Length = reader.U16();
  std::ranges::copy(reader.Take(sizeof header.Opaque12), header.Opaque12);
  header.PrimaryData = reader.U32();
  return header;
}

_MiniHeader ToMiniHeader(const _NTFSMiniHeader& header) {
  return {static_cast<uint8_t>(header.RecordType), header.LastFlag, header.UncompressedLength,
          header.Length};
}

std::span<const unsigned char> NtfsAttribute::NamedOffsetValue() const {
  const size_t nameOffset = LoadLe16(&bytes[10]);
  if (nameOffset >= kResidentHeader && nameOffset <= bytes.size()) return bytes.subspan(nameOffset);
  const size_t valueOffset = LoadLe16(&bytes[20]);
  const bool stated = valueOffset >= kResidentHeader && valueOffset <= bytes.size();
  return bytes.subspan(stated ? valueOffset : kResidentHeader);
}

std::span<const unsigned char> NtfsAttribute::ResidentValue() const {
  ByteReader reader(bytes);
  reader.Skip(LoadLe16(&bytes[20]));
  return reader.Take(LoadLe32(&bytes[16]));
}

bool NtfsAttribute::BeginsStream() const {
  return !nonResident || platform::LoadLe64(&bytes[16]) == 0;
}

uint32_t NtfsAttribute::DataSize() const {
  if (!nonResident) return LoadLe16(&bytes[16]);
  return LoadLe32(&bytes[48]);
}

void UndoFileRecordFixups(std::span<unsigned char, kFileRecordSize> record) {
  const FileRecordLayout layout = LayoutOf(record);
  const bool secondDisplaced =
      layout.stated || LoadLe16(&record[1022]) == LoadLe16(&record[layout.sequence]);
  CopyWord(record, kSectorSize - 2, layout.sequence + 2);
  if (secondDisplaced) CopyWord(record, kFileRecordSize - 2, layout.sequence + 4);
}

std::optional<uint32_t> StatedRecordNumber(Record record) {
  constexpr size_t kNumber = 44;
  const FileRecordLayout layout = LayoutOf(record);
  if (!layout.stated || layout.sequence < kNumber + sizeof(uint32_t)) return std::nullopt;
  return LoadLe32(&record[kNumber]);
}

void VisitAttributes(Record record, const std::function<bool(const NtfsAttribute&)>& visit) {
  ByteReader reader(record);
  reader.Skip(LayoutOf(record).firstAttribute);
  while (true) {
    ByteReader peek = reader;
    NtfsAttribute attribute;
    attribute.type = peek.U32();
    const uint32_t length = peek.U32();
    attribute.nonResident = peek.U8() != 0;
    attribute.nameLength = peek.U8();
    if (!peek.Ok() || (attribute.type & 0xFFFF) == 0xFFFF) return;
    if (length < (attribute.nonResident ? kNonResidentHeader : kResidentHeader)) return;
    attribute.bytes = reader.Take(length);
    if (!reader.Ok() || !visit(attribute)) return;
  }
}

void VisitIndexRoot(const NtfsAttribute& attribute, const std::function<void(uint32_t)>& visit) {
  constexpr size_t kFirstEntry = 64;
  ByteReader reader(attribute.bytes);
  reader.Skip(kFirstEntry);
  VisitIndexEntries(reader, visit);
}

void NtfsIndexUse::Take(const NtfsAttribute& attribute) {
  constexpr size_t kUnitsPerBlock = 12;
  if (attribute.nonResident) return;
  const std::span<const unsigned char> value = attribute.ResidentValue();
  if (attribute.type == kIndexRootType && value.size() > kUnitsPerBlock) {
    m_nUnitsPerBlock = value[kUnitsPerBlock];
  } else if (attribute.type == kBitmapType) {
    m_Bitmap.assign(value.begin(), value.end());
  }
}

bool NtfsIndexUse::InUse(uint64_t position) const {
  if (m_nUnitsPerBlock == 0) return true;
  const uint64_t block = position / m_nUnitsPerBlock;
  return block / 8 >= m_Bitmap.size() || (m_Bitmap[block / 8] >> (block % 8) & 1) != 0;
}

void VisitIndexBlocks(std::span<unsigned char> blocks, const NtfsIndexUse& use,
                      const std::function<void(uint32_t)>& visit) {
  constexpr size_t kLarge = 4096;
  constexpr size_t kSmall = 2048;
  const auto isIndex = [&](size_t at) {
    return blocks.size() >= at + 4 && std::memcmp(&blocks[at], "INDX", 4) == 0;
  };
  if (!isIndex(0)) return;
  const size_t size = isIndex(kSmall) || blocks.size() == kSmall ? kSmall : kLarge;
  for (size_t at = 0; at + size <= blocks.size(); at += size) {
    const std::span<unsigned char> block = blocks.subspan(at, size);
    if (use.InUse(platform::LoadLe64(&block[kBlockPosition]))) VisitIndexBlock(block, visit);
  }
}

bool DecodeFileName(std::span<const unsigned char> value, NtfsFileName* name) {
  ByteReader reader(value);
  name->parent = reader.U32();
  reader.Skip(offsetof(_FileName, NameLength) - sizeof(uint32_t));
  const uint8_t length = reader.U8();
  name->nameSpace = reader.U8();
  ByteReader units = reader.Sub(size_t{length} * 2);
  if (!units.Ok()) return false;
  name->units.clear();
  while (units.Remaining() > 0) name->units.push_back(static_cast<char16_t>(units.U16()));
  return true;
}

}  // namespace capsule
