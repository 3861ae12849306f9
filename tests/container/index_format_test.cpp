#include "capsule/container/index_format.h"

#include <gtest/gtest.h>

namespace capsule {
namespace {

std::vector<unsigned char> BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

TEST(IndexFormat, KnowsAnIndexThatHasACheckValue) {
  struct Case {
    std::string bytes;
    bool isMarked;
    std::optional<uint32_t> checkValue;
  };
  const std::vector<Case> cases = {{"CI1\x78\x56\x34\x12", true, 0x12345678},
                                   {"CI1\x78\x56\x34\x12 and more", true, 0x12345678},
                                   {"CI1\x78\x56\x34", true, std::nullopt},
                                   {"CI", true, std::nullopt},
                                   {"", true, std::nullopt},
                                   {"CI2\x78\x56\x34\x12", false, std::nullopt},
                                   {"ci1\x78\x56\x34\x12", false, std::nullopt}};
  for (const Case& c : cases) {
    const IndexStart start = DecodeIndexStart(BytesOf(c.bytes));
    EXPECT_EQ(start.isMarked, c.isMarked) << c.bytes;
    EXPECT_EQ(start.checkValue, c.checkValue) << c.bytes;
  }
  const auto encoded = EncodeIndexStart(0x12345678);
  EXPECT_EQ(std::string(encoded.begin(), encoded.end()), cases[0].bytes);
}

TEST(IndexFormat, ReadsWhatTheNamesOfNotesSay) {
  using enum NoteKind;
  struct Case {
    std::string name;
    NoteKind kind;
    std::optional<uint64_t> checkValue = {};
    int historyLength = -1;     // of a restart point
    const char* why = nullptr;  // of damage
  };
  const std::string place("seek=\x04\x03\x02\x01", 9);
  const std::vector<Case> cases = {{"", Unknown},
                                   {"xxh3", Unknown},
                                   {"XXH3=0123456789abcdef", Unknown},
                                   {" xxh3=0123456789abcdef", Unknown},
                                   {"name=x", Unknown},
                                   {"xxh3=0123456789abcdef", CheckValue, 0x0123456789abcdef},
                                   {"xxh3=0123456789ABCDEF", CheckValue},
                                   {"xxh3=0123456789abcde", CheckValue},
                                   {"xxh3=0123456789abcdef0", CheckValue},
                                   {place, Restart, {}, 0},
                                   {place + std::string(2047, 'h'), Restart, {}, 2047},
                                   {place + std::string(2048, 'h'), Restart},
                                   {place.substr(0, 8), Restart},
                                   {"damaged=a record", Damaged, {}, -1, "a record"},
                                   {"cut=", Cut, {}, -1, ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 30));
    EXPECT_EQ(SplitNoteName(c.name).kind, c.kind);
    EXPECT_EQ(ChecksumOfName(c.name), c.checkValue);
    const auto restart = RestartOfName(c.name);
    ASSERT_EQ(restart.has_value(), c.historyLength >= 0);
    if (restart) {
      EXPECT_EQ(restart->fileOffset, 0x01020304U);
      EXPECT_EQ(restart->historyLength, c.historyLength);
      const std::string history = c.name.substr(place.size());
      EXPECT_EQ(RestartName(0x01020304, BytesOf(history)), c.name);
    }
    const auto damage = DamageNoteOf({kIndexNote, c.name, 40, 7});
    ASSERT_EQ(damage.has_value(), c.why != nullptr);
    if (damage) {
      EXPECT_EQ(damage->reason, c.why);
      EXPECT_EQ(damage->isCut, c.kind == Cut);
      EXPECT_EQ(RecordOf(*damage).name, c.name);
    }
    EXPECT_FALSE(DamageNoteOf({kIndexFile, c.name, 40, 7}));
  }
  EXPECT_EQ(ChecksumName(0x0123456789abcdef), "xxh3=0123456789abcdef");
  EXPECT_EQ(RecordOf({1, 2, std::string(9999, 'r'), true}).name, "cut=" + std::string(500, 'r'));
}

}  // namespace
}  // namespace capsule
