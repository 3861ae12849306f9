// EntryGroup is the records of one directory entry, as they lie in a section: the pieces of its
// long name, last piece first, and the short entry.
//
//   EntryGroup group;
//   EntryGroup::Taken taken;
//   do {
//     taken = group.Take(EntryOfNextRecord());
//   } while (taken == EntryGroup::Taken::Piece);
//   if (taken == EntryGroup::Taken::Entry) Use(group.Role(), group.Name());
//
// It needs no other memory than its own, and knows nothing of the headers in front of the records.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "capsule/partition/directory_records.h"
#include "capsule/partition/record_format.h"

namespace capsule {

inline constexpr size_t kLongestGroup = (size_t{kMaxLongNamePieces} + 1) * kDirRecordSize;

// What an entry does to the tree that the flat sequence of a section stands for.
enum class EntryRole {
  Closing,  // a zero entry: closes the innermost folder, and at the top level none
  Dot,      // a folder called "." or "..", whatever its long name is: opens nothing
  Folder,   // opens a level, in which what follows lies
  File,
};

EntryRole RoleOf(const _ShortDirEntry& entry);

// What a short name is that every folder has of its own: "." for itself, ".." for the folder above.
enum class DotName { None, Itself, Above };

// By the short name alone, as people read it. A blank name with "." for an extension reads like
// "..", which only damage makes: its role is that of any other name.
DotName DotNameOf(const _ShortDirEntry& entry);

class EntryGroup {
 public:
  using Payload = std::span<const unsigned char, kDirEntrySize>;

  enum class Taken {
    Piece,          // one more of the long name
    Entry,          // the short entry, which ends the group
    NoEntry,        // a zero entry, which ends the group, but no long name can be that of one
    TooManyPieces,  // a piece for which there is no room; it is not taken
  };

  // What is wrong with a piece: it is not the next one, or was made for another short name.
  struct PieceFault {
    bool isChecksum;
    uint8_t has;
    uint8_t needs;
  };

  // Whether a record with this payload is a piece; `isFirst`: nothing of its group comes before it.
  static bool IsPiece(Payload payload, bool isFirst);

  Taken Take(Payload payload);

  // The same where it is known what the record is.
  void AddPiece(Payload payload);
  void SetEntry(const _ShortDirEntry& entry);

  void Clear() { m_pieces = 0; }

  // Of the records so far.
  size_t Pieces() const { return m_pieces; }
  bool HasLongName() const { return m_pieces > 0; }

  // Of a group that is whole:
  const _ShortDirEntry& Entry() const { return m_entry; }
  EntryRole Role() const { return RoleOf(m_entry); }

  // Whether people are shown the entry: they are not the "." and ".." that every folder has.
  bool IsListed() const;

  // Name bytes; the long name is empty when there is none.
  std::string ShortName() const { return ShortNameToBytes(m_entry); }
  std::string LongName() const { return LongNameToBytes(Units()); }
  std::u16string LongUnits() const { return DecodeLongName(Units()); }
  std::string Name() const;

  // Of piece `piece` in the order of the records.
  std::optional<PieceFault> FaultOf(size_t piece) const;

  // What is wrong with how the pieces are filled up, or nothing: a name has characters, only 0xFFFF
  // follows the zero that ends it, and only its last piece ends it.
  std::string_view FaultOfFilling() const;

 private:
  struct Mark {
    uint8_t ordinal;
    uint8_t checksum;
  };

  // The name bytes of the pieces in the order of the records.
  std::span<const unsigned char> Units() const {
    return std::span(m_units).first(m_pieces * kPieceNameBytes);
  }

  size_t m_pieces = 0;
  std::array<unsigned char, kMaxLongNamePieces * kPieceNameBytes> m_units;
  std::array<Mark, kMaxLongNamePieces> m_marks;
  _ShortDirEntry m_entry{};
  uint8_t m_checksum = 0;  // that pieces of this entry have
};

}  // namespace capsule
