#include "capsule/partition/record_format.h"

#include <algorithm>
#include <array>

#include "capsule/platform/byte_reader.h"
#include "capsule/platform/little_endian.h"

namespace capsule {

namespace {

constexpr char16_t kPaddingUnit = 0xFFFF;
constexpr char16_t kReplacement = 0xFFFD;

// Copies `source` to `target` at `at`.
template <typename Target, typename Source>
void Put(Target& target, size_t at, const Source& source) {
  std::copy(std::begin(source), std::end(source),
            std::begin(target) + static_cast<std::ptrdiff_t>(at));
}

template <size_t Count>
void TakeBytes(platform::ByteReader& reader, uint8_t (&out)[Count]) {
  const auto bytes = reader.Take(Count);
  std::copy(bytes.begin(), bytes.end(), out);
}

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

void AppendUtf8(char32_t point, std::string* out) {
  const auto byte = [out](char32_t value) { out->push_back(static_cast<char>(value)); };
  if (point < 0x80) {
    byte(point);
  } else if (point < 0x800) {
    byte(0xC0 | (point >> 6));
    byte(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    byte(0xE0 | (point >> 12));
    byte(0x80 | ((point >> 6) & 0x3F));
    byte(0x80 | (point & 0x3F));
  } else {
    byte(0xF0 | (point >> 18));
    byte(0x80 | ((point >> 12) & 0x3F));
    byte(0x80 | ((point >> 6) & 0x3F));
    byte(0x80 | (point & 0x3F));
  }
}

// Hands the units of a name to `take`, in order, up to the terminator or padding. False when it
// stops at one for which `take` says so.
template <typename Take>
bool ForEachUnit(std::span<const unsigned char> piecesLastFirst, const Take& take) {
  for (size_t piece = piecesLastFirst.size() / kPieceNameBytes; piece > 0; --piece) {
    const auto bytes = piecesLastFirst.subspan((piece - 1) * kPieceNameBytes, kPieceNameBytes);
    for (size_t i = 0; i < kPieceNameBytes; i += 2) {
      const char16_t unit = platform::LoadLe16(&bytes[i]);
      if (unit == 0 || unit == kPaddingUnit) return true;
      if (!take(unit)) return false;
    }
  }
  return true;
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view units) {
  std::string out;
  for (size_t i = 0; i < units.size(); ++i) {
    char32_t point = units[i];
    if (IsHighSurrogate(units[i]) && i + 1 < units.size() && IsLowSurrogate(units[i + 1])) {
      point = 0x10000 + ((point - 0xD800) << 10) + (units[++i] - 0xDC00U);
    } else if (IsHighSurrogate(units[i]) || IsLowSurrogate(units[i])) {
      point = kReplacement;
    }
    AppendUtf8(point, &out);
  }
  return out;
}

std::array<unsigned char, 8> EncodeMiniHeader(const _MiniHeader& header) {
  std::array<unsigned char, 8> bytes{};
  bytes[0] = header.Type;
  bytes[1] = header.Flag;
  platform::StoreLe32(&bytes[2], header.Param);
  platform::StoreLe16(&bytes[6], header.Length);
  return bytes;
}

_MiniHeader DecodeMiniHeader(std::span<const unsigned char, 8> bytes) {
  platform::ByteReader reader(bytes);
  _MiniHeader header{};
  header.Type = reader.U8();
  header.Flag = reader.U8();
  header.Param = reader.U32();
  header.Length = reader.U16();
  return header;
}

std::array<unsigned char, 32> EncodeShortEntry(const _ShortDirEntry& entry) {
  std::array<unsigned char, 32> bytes{};
  Put(bytes, 0, entry.Name);
  Put(bytes, 8, entry.Extension);
  bytes[11] = entry.Attribute;
  bytes[12] = entry.Reserved;
  bytes[13] = entry.CreationSeconds;
  platform::StoreLe16(&bytes[14], entry.CreationTime);
  platform::StoreLe16(&bytes[16], entry.CreationDate);
  platform::StoreLe16(&bytes[18], entry.LastAccessDate);
  platform::StoreLe16(&bytes[20], entry.FirstClusterHigh);
  platform::StoreLe16(&bytes[22], entry.WriteTime);
  platform::StoreLe16(&bytes[24], entry.WriteDate);
  platform::StoreLe16(&bytes[26], entry.FirstClusterLow);
  platform::StoreLe32(&bytes[28], entry.FileSize);
  return bytes;
}

_ShortDirEntry DecodeShortEntry(std::span<const unsigned char, 32> bytes) {
  platform::ByteReader reader(bytes);
  _ShortDirEntry entry{};
  TakeBytes(reader, entry.Name);
  TakeBytes(reader, entry.Extension);
  entry.Attribute = reader.U8();
  entry.Reserved = reader.U8();
  entry.CreationSeconds = reader.U8();
  entry.CreationTime = reader.U16();
  entry.CreationDate = reader.U16();
  entry.LastAccessDate = reader.U16();
  entry.FirstClusterHigh = reader.U16();
  entry.WriteTime = reader.U16();
  entry.WriteDate = reader.U16();
  entry.FirstClusterLow = reader.U16();
  entry.FileSize = reader.U32();
  return entry;
}

std::array<unsigned char, 24> EncodePartition(const _Partition& record) {
  std::array<unsigned char, 24> bytes{};
  Put(bytes, 0, record.Unused0);
  bytes[2] = record.SystemId;
  Put(bytes, 3, record.Unused3);
  platform::StoreLe32(&bytes[14], record.SectorCount);
  Put(bytes, 18, record.Unused18);
  return bytes;
}

_Partition DecodePartition(std::span<const unsigned char, 24> bytes) {
  platform::ByteReader reader(bytes);
  _Partition record{};
  TakeBytes(reader, record.Unused0);
  record.SystemId = reader.U8();
  TakeBytes(reader, record.Unused3);
  record.SectorCount = reader.U32();
  TakeBytes(reader, record.Unused18);
  return record;
}

bool IsInUse(const _Partition& record) {
  const auto bytes = EncodePartition(record);
  return std::any_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b != 0; });
}

std::array<unsigned char, kDirRecordSize> EncodeZeroEntry() {
  std::array<unsigned char, kDirRecordSize> bytes{};
  Put(bytes, 0, kEntryHeader);
  return bytes;
}

std::array<unsigned char, kPartitionHeaderSize> EncodePartitionHeader() {
  std::array<unsigned char, kPartitionHeaderSize> bytes{0xAB, 0xCD, 2};
  Put(bytes, kSectorAreaSize, kAreaHeader);
  return bytes;
}

std::array<unsigned char, kPartitionTrailerSize> EncodePartitionTrailer() {
  std::array<unsigned char, kPartitionTrailerSize> bytes{};
  Put(bytes, 0, kAreaHeader);
  return bytes;
}

uint8_t ShortNameChecksum(std::span<const unsigned char, 11> name) {
  uint8_t sum = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    if (i != 0) sum = static_cast<uint8_t>((sum >> 1) | (sum << 7));
    sum = static_cast<uint8_t>(sum + name[i]);
  }
  return sum;
}

std::array<unsigned char, 26> LongNameUnits(std::span<const unsigned char, 32> record) {
  std::array<unsigned char, 26> units{};
  Put(units, 0, record.subspan(1, 10));
  Put(units, 10, record.subspan(14, 12));
  Put(units, 22, record.subspan(28, 4));
  return units;
}

std::u16string DecodeLongName(std::span<const unsigned char> piecesLastFirst) {
  std::u16string name;
  ForEachUnit(piecesLastFirst, [&](char16_t unit) {
    name.push_back(unit);
    return true;
  });
  return name;
}

// Nearly all names have no unit above 255.
std::string LongNameToBytes(std::span<const unsigned char> piecesLastFirst) {
  std::array<char, size_t{kMaxLongNamePieces} * kPieceUnits> bytes;
  size_t count = 0;
  const bool areBytes = ForEachUnit(piecesLastFirst, [&](char16_t unit) {
    if (unit > 0xFF || count == bytes.size()) return false;
    bytes[count++] = static_cast<char>(unit);
    return true;
  });
  if (!areBytes) return Utf16ToUtf8(DecodeLongName(piecesLastFirst));
  return {bytes.data(), count};
}

std::string ShortNameToBytes(const _ShortDirEntry& entry) {
  std::string text(std::begin(entry.Name), std::end(entry.Name));
  if (entry.Name[0] == kStandsForE5) text.front() = '\xE5';
  text.erase(text.find_last_not_of(' ') + 1);
  const size_t dot = text.size();
  text += '.';
  text.append(std::begin(entry.Extension), std::end(entry.Extension));
  text.erase(text.find_last_not_of(' ') + 1);
  if (text.size() == dot + 1) text.pop_back();
  return text;
}

}  // namespace capsule
