// Damage that breaks no rule of any record: only the index tells.
#include <gtest/gtest.h>

#include <random>

#include "capsule/container/header_format.h"
#include "capsule/host/extractor.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "tests/support/damage_seed.h"
#include "tests/support/entries.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

class StrictReading : public testing::Test {
 protected:
  StrictReading() {
    fs::create_directories(m_dir / "in/folder/below");
    std::mt19937 random(5);
    std::string noise(40000, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    test::WriteFile(m_dir / "in/noise.zip", noise);
    test::WriteFile(m_dir / "in/empty", "");
    test::WriteFile(m_dir / "in/folder/a long name", "text");
    test::WriteFile(m_dir / "in/folder/below/deep", "text");
    ImageBuilder builder(m_path, {});
    builder.AddDirectory(m_dir / "in");
    static_cast<void>(builder.Finish());
    m_whole = test::ReadFile(m_path);
  }

  uint32_t OffsetOf(const char* path) const {
    const Image image(m_path);
    return image.Find(path)->Offset();
  }

  // Flips bits of one byte.
  void Damage(size_t offset, int change = 0x40) const {
    std::string bytes = m_whole;
    bytes.at(offset) = static_cast<char>(bytes[offset] ^ change);
    test::WriteFile(m_path, bytes);
  }

  test::TempDir m_dir;
  std::string m_path = m_dir / "x.cap";
  std::string m_whole;
};

TEST_F(StrictReading, ContentsThatAreNotWhatTheIndexTellsAreNotExtracted) {
  std::string damaged = m_whole;
  damaged.at(OffsetOf("noise.zip") + 20000) ^= 0x40;  // stored plainly
  // The creation time in the last record of its group.
  damaged.at(damaged.rfind("EMPTY", OffsetOf("empty") + 200) + 14) ^= 1;
  test::WriteFile(m_path, damaged);
  fs::create_directories(m_dir / "out");
  const Image image(m_path);
  const ExtractReport report = Extractor(image, m_dir / "out").Run();
  ASSERT_EQ(report.problems.size(), 2U);
  for (const ExtractProblem& problem : report.problems) {
    EXPECT_TRUE(problem.path == "0:/noise.zip" || problem.path == "0:/empty");
    EXPECT_NE(problem.reason.find("check value of the item at 0x"), std::string::npos)
        << problem.reason;
    EXPECT_FALSE(fs::exists(m_dir.Path() / "out" / problem.path.substr(3)));
  }
  EXPECT_EQ(report.files, 2U);

  // Ranges can say nothing; a second pass over the whole says it again.
  FileReader reader = image.OpenFile(*image.Find("noise.zip"));
  std::vector<unsigned char> bytes(30000);
  EXPECT_EQ(reader.Read(1000, bytes), 30000U);
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(reader.Read(0, bytes), 30000U);
    EXPECT_THROW(reader.Read(30000, bytes), Error);
  }
}

TEST_F(StrictReading, ItemsThatMovedToAnotherPathAreReported) {
  // A letter of a long name, which no checksum covers.
  const uint32_t folder = OffsetOf("folder");
  const uint32_t file = OffsetOf("folder/a long name");
  Damage(file + 8 + 1);
  const Image image(m_path);
  ASSERT_EQ(image.Problems().size(), 1U);
  EXPECT_NE(image.Problems()[0].reason.find("the index tells another"), std::string::npos);
  EXPECT_TRUE(image.Find("folder/below/deep"));

  // That of a folder: what lies in it is where it belongs.
  Damage(folder + 8 + 1);
  const Image renamed(m_path);
  EXPECT_EQ(renamed.Problems().size(), 1U);

  // The "." becomes a 0, its group a zero entry: the folder ends before its contents.
  Damage(m_whole.find(std::string(".          \x10"), folder), '.');
  const std::string error = test::ErrorOf([&] { Image{m_path}; });
  EXPECT_NE(error.find("an item of another folder"), std::string::npos) << error;
}

TEST_F(StrictReading, ADamagedCompressionFlagChangesNoFile) {
  ASSERT_EQ(m_whole.at(kCompressionFlagOffset), 1);
  Damage(kCompressionFlagOffset, 1);
  const Image image(m_path);
  EXPECT_EQ(image.Problems().size(), 1U);
  EXPECT_EQ(test::ReadContents(image).at("0:/folder/a long name"), "text");
}

// A stored byte, or one that the FILE record of a small file does not use.
TEST(StrictNtfs, FilesAreComparedWithTheirCheckValues) {
  const test::TempDir folder;
  const std::string path = folder / "n.img";
  fs::copy_file(CAPSULE_TEST_DATA "/images/n_flat_old.img", path);
  static_cast<void>(IndexWriter(path).Write());
  const test::DamageSeed seed(path);
  for (const SectionItem& item : seed.Items()) {
    const std::string name = "0:/" + item.path;
    if (item.kind != SectionItem::Kind::File || name.starts_with("0:/$")) continue;
    ASSERT_NE(seed.Whole().at(name), test::kUnread) << name;
    const uint64_t end = item.offset + item.length;
    const bool isSmall = item.dataOffset == end;
    if (isSmall && item.length != 46 + 1024) continue;  // its FILE record is compressed
    std::string bytes = seed.Bytes();
    bytes[end - (isSmall ? 100 : 1)] ^= 1;
    test::WriteFile(path, bytes);
    EXPECT_EQ(test::ReadContents(Image(path)).at(name) == test::kUnread, true) << name;
  }
}

}  // namespace
}  // namespace capsule::host
