// Names of notes are split in one place, by a table of keys. Everything that asks what a note says
// goes through it, so that no two readers can take the same name for different things.
#include "capsule/container/index_format.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "capsule/compression/lzs_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

constexpr std::string_view kMark = "CI1";
constexpr std::string_view kCheckKey = "xxh3=";
constexpr std::string_view kDamagedKey = "damaged=";
constexpr std::string_view kCutKey = "cut=";
constexpr std::pair<std::string_view, NoteKind> kNoteKeys[] = {{kCheckKey, NoteKind::CheckValue},
                                                               {kRestartName, NoteKind::Restart},
                                                               {kDamagedKey, NoteKind::Damaged},
                                                               {kCutKey, NoteKind::Cut}};
constexpr size_t kMostReason = 500;

constexpr size_t kFileOffsetSize = sizeof(uint32_t);
constexpr size_t kBodyStart = 3;  // bytes of a record before its name
static_assert(kRestartHistoryPlace == kBodyStart + kRestartName.size() + kFileOffsetSize);
static_assert(kMostRestartRecord - kRestartHistoryPlace == lzs::kMaxOffset + 2 * sizeof(uint32_t));

void AppendLe16(uint16_t value, std::vector<unsigned char>* out) {
  out->resize(out->size() + sizeof value);
  platform::StoreLe16(&*(out->end() - sizeof value), value);
}

void AppendLe32(uint32_t value, std::vector<unsigned char>* out) {
  out->resize(out->size() + sizeof value);
  platform::StoreLe32(&*(out->end() - sizeof value), value);
}

}  // namespace

void AppendIndexRecord(const IndexRecord& record, std::vector<unsigned char>* out) {
  out->push_back(record.type);
  if (!HasIndexBody(record.type)) return;
  const size_t nameLength =
      std::min<size_t>(record.name.size(), std::numeric_limits<uint16_t>::max());
  AppendLe16(static_cast<uint16_t>(nameLength), out);
  out->insert(out->end(), record.name.begin(),
              record.name.begin() + static_cast<std::ptrdiff_t>(nameLength));
  AppendLe32(record.offset, out);
  AppendLe32(record.length, out);
}

IndexRecord TakeIndexRecord(platform::ByteReader& reader) {
  IndexRecord record;
  TakeIndexRecord(reader, &record);
  return record;
}

void TakeIndexRecord(platform::ByteReader& reader, IndexRecord* record) {
  record->type = reader.U8();
  record->name.clear();
  record->offset = 0;
  record->length = 0;
  if (!HasIndexBody(record->type)) return;
  const auto name = reader.Take(reader.U16());
  record->name.resize(name.size());
  std::copy(name.begin(), name.end(), record->name.begin());
  record->offset = reader.U32();
  record->length = reader.U32();
}

IndexStart DecodeIndexStart(std::span<const unsigned char> bytes) {
  const size_t count = std::min(bytes.size(), kMark.size());
  IndexStart start;
  start.isMarked = std::equal(kMark.begin(), kMark.begin() + count, bytes.begin());
  if (start.isMarked && bytes.size() >= kIndexPreamble) {
    start.checkValue = platform::LoadLe32(&bytes[kMark.size()]);
  }
  return start;
}

std::array<unsigned char, kIndexPreamble> EncodeIndexStart(uint32_t checkValue) {
  std::array<unsigned char, kIndexPreamble> bytes;
  std::copy(kMark.begin(), kMark.end(), bytes.begin());
  platform::StoreLe32(&bytes[kMark.size()], checkValue);
  return bytes;
}

NoteName SplitNoteName(std::string_view name) {
  for (const auto& [key, kind] : kNoteKeys) {
    if (name.starts_with(key)) return {kind, name.substr(key.size())};
  }
  return {NoteKind::Unknown, name};
}

std::string ChecksumDigits(uint64_t value) { return platform::HexDigits(value, 16); }

std::string ChecksumName(uint64_t value) { return std::string(kCheckKey) + ChecksumDigits(value); }

std::optional<uint64_t> ChecksumOfName(std::string_view name) {
  const auto [kind, digits] = SplitNoteName(name);
  if (kind != NoteKind::CheckValue || digits.size() != 16) return std::nullopt;
  uint64_t value = 0;
  bool areDigits = true;
  for (const char c : digits) {
    const bool isLetter = c >= 'a';
    const int digit = isLetter ? c - 'a' + 10 : c - '0';
    areDigits = areDigits && digit >= (isLetter ? 10 : 0) && digit < (isLetter ? 16 : 10);
    value = value << 4 | (static_cast<uint64_t>(digit) & 0xF);
  }
  return areDigits ? std::optional(value) : std::nullopt;
}

std::string RestartName(uint32_t fileOffset, std::span<const unsigned char> history) {
  std::vector<unsigned char> name(kRestartName.begin(), kRestartName.end());
  AppendLe32(fileOffset, &name);
  name.insert(name.end(), history.begin(), history.end());
  return {name.begin(), name.end()};
}

std::optional<RestartNote> RestartOfName(std::string_view name) {
  const auto [kind, value] = SplitNoteName(name);
  if (kind != NoteKind::Restart || value.size() < kFileOffsetSize ||
      value.size() - kFileOffsetSize > lzs::kMaxOffset) {
    return std::nullopt;
  }
  const std::vector<unsigned char> offset(value.begin(), value.begin() + kFileOffsetSize);
  return RestartNote{platform::LoadLe32(offset.data()),
                     static_cast<uint16_t>(value.size() - kFileOffsetSize)};
}

IndexRecord RecordOf(const DamageNote& note) {
  const std::string_view key = note.isCut ? kCutKey : kDamagedKey;
  return {kIndexNote, std::string(key) + note.reason.substr(0, kMostReason), note.offset,
          note.length};
}

std::optional<DamageNote> DamageNoteOf(const IndexRecord& record) {
  const auto [kind, reason] = SplitNoteName(record.name);
  const bool isCut = kind == NoteKind::Cut;
  if (record.type != kIndexNote || (!isCut && kind != NoteKind::Damaged)) return std::nullopt;
  return DamageNote{record.offset, record.length, std::string(reason), isCut};
}

}  // namespace capsule
