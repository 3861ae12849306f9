#include "capsule/partition/entry_group.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace capsule {
namespace {

using Payload = std::array<unsigned char, kDirEntrySize>;

Payload Short(std::string_view name, uint8_t attribute) {
  Payload bytes{};
  std::copy(name.begin(), name.end(), bytes.begin());
  bytes[11] = attribute;
  return bytes;
}

// The piece of a long name for `entry` that holds up to 13 of `units`; '~' stands for 0xFFFF, '$'
// for 0.
Payload Piece(uint8_t ordinal, std::string_view units, const Payload& entry) {
  Payload bytes{ordinal};
  bytes[11] = kLongNameAttribute;
  bytes[13] = ShortNameChecksum(std::span(entry).first<11>());
  constexpr int kPlaces[] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
  for (size_t i = 0; i < units.size(); ++i) {
    bytes[kPlaces[i]] = units[i] == '~' ? 0xFF : units[i] == '$' ? 0 : units[i];
    bytes[kPlaces[i] + 1] = units[i] == '~' ? 0xFF : 0;
  }
  return bytes;
}

const Payload kFile = Short("AB~1    TXT", 0x20);
const Payload kFolder = Short("AB~1       ", 0x10);
const Payload kDot = Short(".          ", 0x30);
const Payload kZero = Short("", 0);
const Payload kLast = Piece(0x41, "a name$~~~~~~", kFile);

// What the group says of itself, faults at the end.
std::string Told(std::span<const Payload> records) {
  constexpr const char* kTaken[] = {"more", "entry", "no entry", "too many"};
  constexpr const char* kRoles[] = {"closing", "dot", "folder", "file"};
  EntryGroup group;
  auto taken = EntryGroup::Taken::Piece;
  for (const Payload& record : records) {
    if (taken != EntryGroup::Taken::Piece) return "ends early";
    taken = group.Take(record);
  }
  std::string text = kTaken[static_cast<int>(taken)];
  if (taken != EntryGroup::Taken::Entry) return text;
  text += std::string(" ") + kRoles[static_cast<int>(group.Role())];
  if (group.Role() == EntryRole::Closing) return text;
  text += (group.IsListed() ? " " : " unlisted ") + group.Name();
  for (size_t i = 0; i < group.Pieces(); ++i) {
    const auto fault = group.FaultOf(i);
    if (!fault) continue;
    text += ", piece " + std::to_string(i) +
            (fault->isChecksum ? " is of another name"
                               : " ordinal " + std::to_string(fault->has) + " needs " +
                                     std::to_string(fault->needs));
  }
  const std::string filling(group.FaultOfFilling());
  return filling.empty() ? text : text + ", " + filling;
}

TEST(EntryGroup, TellsWhatItsRecordsAre) {
  const std::string_view full = "abcdefghijklm";
  Payload zeroPiece = kLast;
  zeroPiece[0] = 0;
  const struct {
    std::vector<Payload> records;
    std::string told;
  } cases[] = {
      {{kFile}, "entry file AB~1.TXT"},
      {{kFolder}, "entry folder AB~1"},
      {{kZero}, "entry closing"},
      {{zeroPiece}, "entry closing"},
      {{kDot}, "entry dot unlisted ."},
      {{Short("..         ", 0x10)}, "entry dot unlisted .."},
      {{Short(".          ", 0x20)}, "entry file ."},
      {{Short("...        ", 0x10)}, "entry folder ..."},
      {{Short(".A         ", 0x10)}, "entry folder .A"},
      {{Short(".       EXT", 0x10)}, "entry folder ..EXT"},
      {{Short("        .  ", 0x10)}, "entry folder .."},
      {{Piece(0x41, "dots$~~~~~~~~", kDot), kDot}, "entry dot dots"},
      {{kLast, kFile}, "entry file a name"},
      {{kFile, kFile}, "ends early"},
      {{kLast}, "more"},
      {{kLast, kZero}, "no entry"},
      {{Piece(0x42, "n$~~~~~~~~~~~", kFile), Piece(1, full, kFile), kFile},
       "entry file abcdefghijklmn"},
      {{Piece(0x41, full, kFile), kFile}, "entry file abcdefghijklm"},
      {{Piece(0x41, "$~~~~~~~~~~~~", kFile), kFile}, "entry file AB~1.TXT, empty"},
      {{kLast, zeroPiece, kFile},
       "entry file a name, piece 0 ordinal 65 needs 66, piece 1 ordinal 0 needs 1, name ends "
       "before "
       "its last piece"},
      {{kLast, kFolder}, "entry folder a name, piece 0 is of another name"},
      {{Piece(0x41, "a$b~~~~~~~~~~", kFile), kFile}, "entry file a, name goes on behind its end"},
      {{Piece(0x41, "a~~~~~~~~~~~~", kFile), kFile},
       "entry file a, name is filled up without an end"},
  };
  for (const auto& [records, told] : cases) EXPECT_EQ(Told(records), told);

  std::vector<Payload> longest;
  for (uint8_t i = 63; i > 0; --i) {
    longest.push_back(Piece(i == 63 ? i | 0x40 : i, full, kFile));
  }
  longest.push_back(kFile);
  std::string name;
  for (int i = 0; i < 63; ++i) name += full;
  EXPECT_EQ(Told(longest), "entry file " + name);
  longest.back() = kLast;
  EXPECT_EQ(Told(longest), "too many");
}

}  // namespace
}  // namespace capsule
