#include "capsule/partition/directory_entry.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "capsule/partition/record_format.h"
#include "capsule/platform/scoped_descriptor.h"
#include "tests/support/bytes.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::Hex;
using test::Zeros;

constexpr auto kFat16 = CapsuleDirectoryEntry::DirTypeFat16;
constexpr auto kFat32 = CapsuleDirectoryEntry::DirTypeFat32;
const std::string kHeader = Hex("16 01 00 00 00 00 20 00");

class DirectoryEntryTest : public testing::Test {
 protected:
  // The records that an entry for `path` is written as, zero entries included.
  std::string Written(const char* path, CapsuleDirectoryEntry::DirectoryType type = kFat32) {
    const std::string target = m_tree.Beside("records");
    std::filesystem::remove(target);
    const platform::ScopedDescriptor image(platform::OpenForWriting(target.c_str()));
    CapsuleDirectoryEntry entry;
    int count = 0;
    EXPECT_EQ(entry.SetFileDirectory(type, path, image.Get(), 0, &count), 0) << path;
    EXPECT_EQ(entry.Write(type, image.Get(), count, &count), 0) << path;
    std::string bytes = test::ReadFile(target);
    EXPECT_EQ(static_cast<size_t>(count), bytes.size());
    return bytes;
  }

  // Result of reading `bytes`, which stand at offset 100 of an image.
  int Read(CapsuleDirectoryEntry& entry, const std::string& bytes, int* count) {
    const std::string image = m_tree.Beside("image");
    test::WriteFile(image, Zeros(100) + bytes);
    const platform::ScopedDescriptor file(platform::OpenForReading(image.c_str()));
    return entry.Read(kFat32, file.Get(), 100, count);
  }

  // The name that `bytes` read back as.
  std::string NameReadFrom(const std::string& bytes) {
    CapsuleDirectoryEntry entry;
    int count = 100;
    EXPECT_EQ(Read(entry, bytes, &count), 0);
    EXPECT_EQ(static_cast<size_t>(count), 100 + bytes.size());
    // Very many entries are kept at once.
    EXPECT_EQ(entry.LongFileName().AllocSize(), entry.LongFileName().Size());
    const std::string units(entry.LongFileName().GetRead(),
                            static_cast<size_t>(entry.LongFileName().Size()));
    if (units.empty()) return ShortNameToBytes(entry.GetRecord()->OtherEntry);
    return LongNameToBytes({test::Unsigned(units), units.size()});
  }

  test::SourceTree m_tree;
};

TEST_F(DirectoryEntryTest, NamesComeBackAsTheyWere) {
  m_tree.State().hostView.SetAliasPolicy(platform::AliasPolicy::Exact);
  std::vector<std::string> names = {
      "Makefile",      "README",     ".gitignore",  ".a.b",     "a..b",  "MIX.txt",
      "x+y[1].tar.gz", "with blank", "caf\xC3\xA9", "\xFF\x80", "noext", "A",
      "UPPER.EX",      "..x",        "...y",        "\xE5",     "\xE5 b"};
  for (const size_t length : {1U, 8U, 12U, 13U, 14U, 26U, 27U, 255U}) {
    names.push_back(std::string(length - 1, 'n') + "z");
  }
  for (const std::string& name : names) m_tree.AddFile(name, "");
  for (const std::string& name : names) {
    const std::string bytes = Written(test::SourceTree::Inserted(name).c_str());
    EXPECT_EQ(NameReadFrom(bytes), name);
    const bool isShort = name == "README" || name == "A" || name == "UPPER.EX" ||
                         name[0] == '\xFF' || name == "\xE5";
    const size_t pieces = isShort ? 0 : (name.size() + 12) / 13;
    EXPECT_EQ(bytes.size(), 40 * (pieces + 1)) << name;
    EXPECT_EQ(bytes.at(40 * pieces + 8) == '\x05', name[0] == '\xE5') << name;  // 0xE5: erased
    if (isShort) continue;
    const auto checksum = ShortNameChecksum(
        std::span<const unsigned char, 11>(test::Unsigned(bytes) + 40 * pieces + 8, 11));
    for (size_t i = 0; i < pieces; ++i) {
      EXPECT_EQ(test::U8At(bytes, 40 * i + 8), pieces - i + (i == 0 ? 0x40 : 0)) << name;
      EXPECT_EQ(test::U8At(bytes, 40 * i + 8 + 13), checksum) << name;
    }
  }
}

TEST_F(DirectoryEntryTest, ALastPieceIsTerminatedAndPaddedUnlessFull) {
  m_tree.AddFile("thirteen.char", "");
  m_tree.AddFile("fourteen.chars", "");
  const std::string thirteen = Written("C:\\thirteen.char");
  EXPECT_EQ(thirteen.substr(8, 11), Hex("41 74 00 68 00 69 00 72 00 74 00"));
  EXPECT_EQ(thirteen.substr(36, 4), Hex("61 00 72 00"));
  const std::string fourteen = Written("C:\\fourteen.chars");
  EXPECT_EQ(fourteen.substr(0, 19), kHeader + Hex("42 73 00 00 00 FF FF FF FF FF FF"));
  EXPECT_EQ(fourteen.substr(22, 12), std::string(12, '\xFF'));
}

TEST_F(DirectoryEntryTest, ShortEntriesHoldWhatTheFinderTells) {
  m_tree.AddFile("readme.txt", "12345");
  m_tree.AddDirectory("dir.d");
  for (const char* name : {"readme.txt", "dir.d"}) m_tree.SetTime(name, 981173106);
  EXPECT_EQ(Written("C:\\readme.txt"),
            kHeader + "README  TXT" +
                Hex("20 00 06 A3 20 43 2A 43 2A 0A 00 A3 20 43 2A 0A 00 05 00 00 00"));
  EXPECT_EQ(Written("C:\\readme.txt", kFat16),
            kHeader + "README  TXT" +
                Hex("20 00 00 00 00 00 00 00 00 00 00 A3 20 43 2A 00 00 05 00 00 00"));
  const std::string rest = Hex("10 00 06 A3 20 43 2A 43 2A 0A 00 A3 20 43 2A 0A 00 00 00 00 00");
  EXPECT_EQ(Written("C:\\dir.d"), kHeader + "DIR     D  " + rest);
  EXPECT_EQ(Written("C:\\dir.d\\."), kHeader + ".          " + rest);
  EXPECT_EQ(Written("C:\\dir.d\\..").substr(0, 20), kHeader + "..         " + "\x10");
  EXPECT_EQ(Written(nullptr), kHeader + Zeros(20) + Hex("0A 00 00 00 00 00 0A 00") + Zeros(4));
}

TEST_F(DirectoryEntryTest, PendingZeroEntriesComeFirst) {
  m_tree.AddFile("F", "");
  m_tree.State().dirLevelsToClose = 2;
  const std::string bytes = Written("C:\\F");
  EXPECT_EQ(bytes.substr(0, 80), kHeader + Zeros(32) + kHeader + Zeros(32));
  EXPECT_EQ(bytes.size(), 120U);
  EXPECT_EQ(m_tree.State().dirLevelsToClose, 0);
  EXPECT_EQ(Written("C:\\F"), bytes.substr(80));

  const platform::ScopedDescriptor full(platform::OpenForWriting("/dev/full"));
  CapsuleDirectoryEntry entry;
  int count = 0;
  EXPECT_EQ(entry.SetFileDirectory(kFat32, "C:\\missing", full.Get(), 0, &count), -1);
  m_tree.State().dirLevelsToClose = 2;
  EXPECT_EQ(entry.SetFileDirectory(kFat32, "C:\\F", full.Get(), 0, &count), -1);
  EXPECT_EQ(m_tree.State().dirLevelsToClose, 2);
}

TEST_F(DirectoryEntryTest, DamagedChainsFail) {
  const std::string piece = Hex("41 61 00 62 00 00 00 FF FF FF FF 0F 00 55") +
                            std::string(12, '\xFF') + Zeros(2) + std::string(4, '\xFF');
  const std::string entry = "AB         " + Hex("20") + Zeros(20);
  const auto read = [&](const std::string& bytes) {
    CapsuleDirectoryEntry target;
    int count = 0;
    return Read(target, bytes, &count);
  };
  const std::string partition = Hex("17 00 00 00 00 00 00 06");
  EXPECT_EQ(NameReadFrom(kHeader + piece + kHeader + entry), "ab");
  EXPECT_EQ(read(kHeader + piece + partition + entry), -1);
  EXPECT_EQ(read(kHeader + piece + kHeader + Zeros(32)), -1);
  for (size_t cut = 0; cut < 80; ++cut) {
    EXPECT_EQ(read((kHeader + piece + kHeader + entry).substr(0, cut)), -1) << cut;
  }
  std::string chain;
  for (int i = 0; i < 63; ++i) chain += kHeader + piece;
  EXPECT_EQ(read(chain + kHeader + entry), 0);
  EXPECT_EQ(read(chain + kHeader + piece + kHeader + entry), -1);
}

TEST_F(DirectoryEntryTest, Utf16BecomesUtf8WithoutHalfPairs) {
  EXPECT_EQ(Utf16ToUtf8(u"\u20AC\u00E9z"), "\xE2\x82\xAC\xC3\xA9z");
  EXPECT_EQ(Utf16ToUtf8(u"\U0001F600"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf16ToUtf8(std::u16string{0xDC00, u'x', 0xD800}), "\xEF\xBF\xBDx\xEF\xBF\xBD");
}

TEST_F(DirectoryEntryTest, Utf16NamesAreLaidOutLastPieceFirst) {
  const std::u16string name = u"abcdefghijklmn";
  const std::vector<unsigned short> units(name.begin(), name.end());
  for (const unsigned char length : {uint8_t{14}, uint8_t{13}}) {
    CapsuleDirectoryEntry entry;
    entry.FormatLongFileName(units.data(), length);
    ASSERT_EQ(entry.LongFileName().Size(), 52);
    const std::string bytes(entry.LongFileName().GetRead(), 52);
    EXPECT_EQ(bytes.substr(0, 2), length == 14 ? Hex("6E 00") : Hex("FF FF"));
    EXPECT_EQ(bytes.substr(2, 24), std::string(24, '\xFF'));
    EXPECT_EQ(DecodeLongName({test::Unsigned(bytes), 52}), name.substr(0, length));
  }
}

TEST_F(DirectoryEntryTest, PathsAreSplitAtTheLastSeparatorAndDot) {
  using Case = std::tuple<const char*, int, const char*, const char*>;
  for (const auto& [path, result, expectedName, expectedExtension] :
       {Case{"C:\\a.b\\c.tar.gz", 1, "c.tar", "gz"}, Case{"C:/a.b/plain", 0, "plain", "kept"},
        Case{"a\\.", 1, ".", ""}, Case{"a\\..", 1, "..", ""}, Case{"", 0, "kept", "kept"}}) {
    CapsuleDirectoryEntry entry;
    CString name = "kept";
    CString extension = "kept";
    EXPECT_EQ(entry.GetFileName(path, name, extension), result) << path;
    EXPECT_EQ(name, expectedName) << path;
    EXPECT_EQ(extension, expectedExtension) << path;
  }
}

}  // namespace
}  // namespace capsule
