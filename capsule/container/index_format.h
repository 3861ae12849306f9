// The index of an image: 7 bytes that readers skip, then records without gaps up to the one whose
// offset + length reaches the index.
//
// Record: type (1). For types 2, 3, 5 and 6 then: name length (2), name, offset (4), length (4).
//   1 group mark   2, 3 file records   5 partition section   6 note   other: no body
//
// What a note says begins its name, a key and '='; what follows belongs to it:
//   xxh3=      16 hex digits: the check value of the bytes from offset on
//   seek=      a restart point: the offset in the file of the data block record at offset (4
//   bytes),
//              then the up to 2047 bytes that it may refer back to, the latest last
//   damaged=   what was wrong there when the index was made, one line
//   cut=       the same of an image whose end was missing
// Notes with other keys are stepped over.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/platform/byte_reader.h"

namespace capsule {

inline constexpr uint8_t kIndexGroupMark = 1;
inline constexpr uint8_t kIndexFile = 2;
inline constexpr uint8_t kIndexZeroEntry = 3;
inline constexpr uint8_t kIndexSection = 5;
inline constexpr uint8_t kIndexNote = 6;
inline constexpr uint32_t kIndexPreamble = 7;
inline constexpr size_t kLongestIndexRecord = 1 + 2 + 65535 + 4 + 4;

struct IndexRecord {
  uint8_t type = 0;
  std::string name;
  uint32_t offset = 0;
  uint32_t length = 0;
};

// Whether records of this type have a name, an offset and a length.
inline bool HasIndexBody(uint8_t type) {
  return type == kIndexFile || type == kIndexZeroEntry || type == kIndexSection ||
         type == kIndexNote;
}

// Appends the bytes of `record` to `out`. Names longer than 65535 bytes are cut.
void AppendIndexRecord(const IndexRecord& record, std::vector<unsigned char>* out);

// The next record; a reader that ends inside it has failed afterwards.
IndexRecord TakeIndexRecord(platform::ByteReader& reader);

// The same into `*record`, whose room for a name is used again.
void TakeIndexRecord(platform::ByteReader& reader, IndexRecord* record);

// The preamble: "CI1" and the XXH32 of all bytes behind it in an index that has a check value of
// its own, anything in others.
struct IndexStart {
  bool isMarked = false;               // begins "CI1", as far as there are bytes
  std::optional<uint32_t> checkValue;  // of an index that has one, when all of it is there
};

IndexStart DecodeIndexStart(std::span<const unsigned char> bytes);
std::array<unsigned char, kIndexPreamble> EncodeIndexStart(uint32_t checkValue);

enum class NoteKind { Unknown, CheckValue, Restart, Damaged, Cut };

// The name of a note without its key; of one that is not known, all of it.
struct NoteName {
  NoteKind kind = NoteKind::Unknown;
  std::string_view value;
};

NoteName SplitNoteName(std::string_view name);

// A check value as 16 hex digits, and the name of the note on it.
std::string ChecksumDigits(uint64_t value);
std::string ChecksumName(uint64_t value);

// The value in such a name; none when it is another.
std::optional<uint64_t> ChecksumOfName(std::string_view name);

struct RestartNote {
  uint32_t fileOffset = 0;
  uint16_t historyLength = 0;
};

inline constexpr std::string_view kRestartName = "seek=";

// Where the bytes that may be referred back to lie in the record of a restart point, and how long
// that is at most.
inline constexpr uint32_t kRestartHistoryPlace = 3 + 5 + 4;
inline constexpr uint32_t kMostRestartRecord = kRestartHistoryPlace + 2047 + 8;

std::string RestartName(uint32_t fileOffset, std::span<const unsigned char> history);
std::optional<RestartNote> RestartOfName(std::string_view name);

struct DamageNote {
  uint32_t offset = 0;  // of what is damaged: an item, a section; 0 for the image as a whole
  uint32_t length = 0;
  std::string reason;  // one line
  bool isCut = false;  // the end of the image was missing
};

// The record that says so; a long reason is clipped.
IndexRecord RecordOf(const DamageNote& note);

// What a record says; none when it says something else.
std::optional<DamageNote> DamageNoteOf(const IndexRecord& record);

}  // namespace capsule
