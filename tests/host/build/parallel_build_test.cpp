#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <vector>

#include "capsule/container/capsule_file.h"
#include "capsule/host/build/encoding_jobs.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/parallel/ordered_work.h"
#include "tests/support/entries.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/source_tree.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

// Lines with much in common, as text has it.
std::string Text(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes;
  while (bytes.size() < count) {
    bytes +=
        "line " + std::to_string(random() % 1000) + (random() % 3 == 0 ? ": error\n" : ": ok\n");
  }
  bytes.resize(count);
  return bytes;
}

std::string Noise(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

constexpr size_t kMebi = size_t{1} << 20;

class ParallelBuild : public testing::Test {
 protected:
  // Adds a file that is stored at any level, or one that is not.
  void Put(const std::string& name, const std::string& bytes, bool isStored = false) {
    m_tree.AddFile(name, bytes);
    m_stored[name] = isStored;
  }

  // All of the tree one by one, by the class interface.
  std::string InsertAll(int level) {
    LibraryState& state = m_tree.State();
    state.previousInsertDir.clear();
    state.hostView.SetAliasPolicy(platform::AliasPolicy::Exact);
    const std::string image = m_tree.Beside("one.cap");
    fs::remove(image);
    CapsuleFile file;
    EXPECT_EQ(file.CreateCapsuleFile(image.c_str()), 0);
    file.SetCompressionLevel(level);
    EXPECT_EQ(file.WriteImageFileHeader("Capsulate"), 0);
    InsertBelow("", level, file);
    EXPECT_EQ(file.CloseImageFile(), 0);
    static_cast<void>(IndexWriter(image).Write());
    return test::ReadFile(image);
  }

  void InsertBelow(const std::string& folder, int level, CapsuleFile& file) {
    std::vector<std::string> names;
    for (const auto& item : fs::directory_iterator(m_tree.Source(folder))) {
      names.push_back(item.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string path = folder.empty() ? name : folder + "/" + name;
      file.SetCompressionLevel(m_stored[path] ? 0 : level);
      EXPECT_EQ(file.InsertFile(test::SourceTree::Inserted(path).c_str(), 0), 0) << path;
      if (fs::is_directory(m_tree.Source(path))) InsertBelow(path, level, file);
    }
  }

  std::string Build(int level, int jobs, BuildReport* report = nullptr) {
    const std::string image = m_tree.Beside("all.cap");
    ImageBuilder builder(image, {.level = level, .jobs = jobs});
    builder.AddDirectory(m_tree.Root());
    const BuildReport done = builder.Finish();
    EXPECT_TRUE(done.problems.empty());
    if (report != nullptr) *report = done;
    return test::ReadFile(image);
  }

  test::SourceTree m_tree;
  std::map<std::string, bool> m_stored;
};

TEST_F(ParallelBuild, AnyNumberOfJobsGivesTheBytesOfInsertingOneByOne) {
  for (int i = 0; i < 300; ++i) {
    const std::string folder = "d" + std::to_string(i % 7) + "/sub " + std::to_string(i % 3);
    Put(folder + "/file number " + std::to_string(i), Text(static_cast<size_t>(i * i % 9000), 1));
  }
  m_tree.AddDirectory("empty/inner");
  Put("a/empty", "");
  Put("a/one", "1");
  Put("b/just a span", Text(kMebi, 2));
  Put("b/more", Text(kMebi + 1, 3));
  Put("b/much more", Text(3 * kMebi + 12345, 4));
  Put("c/noise", Noise(100'000, 5), true);
  Put("c/long noise", Noise(kMebi + 77, 6), true);
  // Two samples of sixteen shrink, and so hide that all else grows.
  const std::string silence(2 * 8192, '\0');
  Put("c/film", silence + Noise(2 * kMebi, 11) + silence, true);
  Put("c/named.zip", Text(kMebi + 1, 7), true);
  Put("c/zeros", std::string(2 * kMebi, '\0'));
  Put("c/mixed", Text(kMebi, 8) + Noise(kMebi, 9) + Text(kMebi, 10));
  for (const int level : {0, 1, 5, 9}) {
    SCOPED_TRACE(level);
    const std::string wanted = InsertAll(level);
    for (const int jobs : {1, 2, 8}) {
      BuildReport report;
      EXPECT_TRUE(Build(level, jobs, &report) == wanted) << jobs;
      EXPECT_EQ(report.seams, level == 0 ? 0U : 1U + 3 + 1 + 2 + 2);
    }
  }
}

TEST_F(ParallelBuild, WhatTheWorkersCannotReadIsNamedInTheOrderOfTheWalk) {
  for (int i = 0; i < 40; ++i) Put("f" + std::to_string(i), Text(20'000, 1));
  Put("g", Text(4 * kMebi, 2));
  Put("h", "behind");
  std::vector<BuildItem> items;
  std::vector<std::string> wanted;
  for (const auto& [name, stored] : m_stored) {
    BuildItem item;
    item.path = name;
    item.source = m_tree.Source(name);
    const bool fails = name == "f17" || name == "f3" || name == "g";
    if (fails) {
      item.source.clear();
      item.bytes = FunctionSource(fs::file_size(m_tree.Source(name)),
                                  [name](uint64_t at, std::span<unsigned char> out) {
                                    if (at + out.size() > 2 * kMebi || name != "g")
                                      return size_t{0};
                                    return out.size();
                                  });
      wanted.push_back(name);
    }
    items.push_back(item);
  }
  for (const int jobs : {1, 4}) {
    const std::string path = m_tree.Beside("x.cap");
    ImageBuilder builder(path, {.jobs = jobs});
    builder.AddItems(items);
    const BuildReport report = builder.Finish();
    ASSERT_EQ(report.problems.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) EXPECT_EQ(report.problems[i].path, wanted[i]);
    const Image image(path);
    EXPECT_TRUE(image.IsWhole());
    EXPECT_EQ(test::ReadAll(image, *image.Find("h")), "behind");
    EXPECT_EQ(image.Info().partitions[0].files, items.size() - wanted.size());
  }
}

TEST(OrderedWork, GivesJobsBackInOrderAlsoThoseThatThrow) {
  struct Job : OrderedWork::Job {
    explicit Job(int n) : number(n) {}
    void Run(size_t) override {
      if (number % 10 == 3) throw std::runtime_error(std::to_string(number));
      isDone = true;
    }
    int number;
    bool isDone = false;
  };
  for (const size_t workers : {1, 2, 5}) {
    OrderedWork work(workers);
    int taken = 0;
    const auto take = [&] {
      const int number = taken++;
      try {
        const auto job = work.TakeFirst();
        EXPECT_EQ(dynamic_cast<Job&>(*job).number, number);
        EXPECT_TRUE(dynamic_cast<Job&>(*job).isDone);
        EXPECT_NE(number % 10, 3);
      } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), std::to_string(number));
      }
    };
    for (int i = 0; i < 1000; ++i) {
      work.Push(std::make_unique<Job>(i));
      while (work.IsFull()) take();
    }
    while (taken < 990) take();
    // The rest is dropped.
  }
}

TEST(OrderedWork, DoesWithoutThreadsThatThereIsNoMemoryFor) {
  EXPECT_GT(test::FailEachAllocation([](const auto& failing) {
              try {
                EXPECT_EQ(failing([] { return OrderedWork(4).Workers(); }), 4U);
              } catch (const std::bad_alloc&) {
              }
            }),
            4);
}

TEST(SpanJob, IsDoneUnlessASpanBeforeItFailed) {
  EncoderPool encoders(1, 5, 0);
  const auto file = std::make_shared<LongFile>();
  file->item.status.size = 4 * kMebi;
  file->item.bytes = FunctionSource(4 * kMebi, [](uint64_t at, std::span<unsigned char> out) {
    return at + out.size() > 2 * kMebi ? 0 : out.size();
  });
  std::vector<EncodedSpan> spans;
  for (const uint64_t at : {2 * kMebi, 1 * kMebi, 3 * kMebi}) {
    SpanJob job(encoders, file, at);
    job.Run(0);
    spans.push_back(std::move(job.Encoded()));
  }
  EXPECT_EQ(spans[0].problem, "changed while it was read");
  EXPECT_FALSE(spans[1].bytes.empty());
  EXPECT_TRUE(spans[2].problem.empty() && spans[2].bytes.empty());
}

}  // namespace
}  // namespace capsule::host
