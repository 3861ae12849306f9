#include "capsule/platform/alias_cache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/temp_dir.h"

namespace capsule::platform {
namespace {

using test::TempDir;
using test::WriteFile;

// Lets the clock that stamps files go on, so that directories count as settled.
void LetAPause() { std::this_thread::sleep_for(std::chrono::milliseconds(60)); }

std::string AliasIn(AliasCache& cache, const std::string& directory, const std::string& name) {
  const std::string* alias = cache.Find(directory, name);
  return alias == nullptr ? "" : *alias;
}

TEST(AliasCacheTest, SeesEveryChangeOfADirectory) {
  const TempDir dir;
  AliasCache cache;
  const std::string path = dir.Path().string();
  WriteFile(dir / "samename2", "");
  EXPECT_EQ(AliasIn(cache, path, "samename2"), "SAMENA~1");
  WriteFile(dir / "samename1", "");  // very likely in the same tick of the clock
  EXPECT_EQ(AliasIn(cache, path, "samename2"), "SAMENA~2");
  LetAPause();
  EXPECT_EQ(AliasIn(cache, path, "samename2"), "SAMENA~2");
  std::filesystem::remove(dir / "samename1");
  EXPECT_EQ(AliasIn(cache, path, "samename1"), "");
  EXPECT_EQ(AliasIn(cache, path, "samename2"), "SAMENA~1");
  // Another directory of the same name, its modification time put back.
  LetAPause();
  const auto time = std::filesystem::last_write_time(dir.Path());
  WriteFile(dir / "samename0", "");
  std::filesystem::last_write_time(dir.Path(), time);
  EXPECT_EQ(AliasIn(cache, path, "samename2"), "SAMENA~2");
  cache.SetPolicy(AliasPolicy::Exact);
  WriteFile(dir / "low", "");
  EXPECT_EQ(AliasIn(cache, path, "low"), "LOW~1");
  std::filesystem::remove_all(dir.Path());
  EXPECT_EQ(AliasIn(cache, path, "low"), "");
}

TEST(AliasCacheTest, AWalkInDepthListsEachDirectoryOnce) {
  const TempDir dir;
  for (int i = 0; i < 100; ++i) {
    const std::string sub = dir / std::to_string(i);
    std::filesystem::create_directories(sub + "/deeper");
    WriteFile(sub + "/some file", "");
    WriteFile(sub + "/deeper/some file", "");
  }
  LetAPause();
  AliasCache cache(0);  // room for nothing but what must stay
  size_t most = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string sub = dir / std::to_string(i);
    ASSERT_NE(cache.Find(dir.Path().string(), std::to_string(i)), nullptr);
    ASSERT_NE(cache.Find(sub, "deeper"), nullptr);
    ASSERT_NE(cache.Find(sub + "/deeper", "some file"), nullptr);
    ASSERT_NE(cache.Find(sub, "some file"), nullptr);
    if (i == 0) most = cache.Bytes();
    ASSERT_LE(cache.Bytes(), most + 100) << "directories left behind must go";
  }
  EXPECT_EQ(cache.Listings(), 201U);
}

TEST(AliasCacheTest, SiblingsStayWithinTheBudget) {
  const TempDir dir;
  for (int i = 0; i < 20; ++i) {
    std::filesystem::create_directory(dir / std::to_string(i));
    WriteFile(dir / (std::to_string(i) + "/some file"), "");
  }
  LetAPause();
  const auto rounds = [&](AliasCache& cache) {
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(AliasIn(cache, dir / std::to_string(i % 20), "some file"), "SOME_F~1");
    }
    return cache.Listings();
  };
  AliasCache roomy;
  EXPECT_EQ(rounds(roomy), 20U);
  AliasCache tight(roomy.Bytes() / 2);
  EXPECT_EQ(rounds(tight), 100U);
  EXPECT_LE(tight.Bytes(), roomy.Bytes() / 2);
}

}  // namespace
}  // namespace capsule::platform
