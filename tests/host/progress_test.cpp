#include "capsule/host/progress.h"

#include <gtest/gtest.h>

#include <functional>

#include "capsule/host/extractor.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLong = 7'500'000;

// All operations that tell how far they are and can be cancelled, over a long file and short ones.
class ProgressTest : public testing::Test {
 protected:
  struct Operation {
    std::string name;
    std::function<void(OnProgress, std::stop_token)> run;
  };

  ProgressTest() {
    fs::create_directories(m_dir / "in/folder");
    std::string bytes;
    for (uint32_t i = 0; bytes.size() < kLong; ++i) bytes += std::to_string(i * 2654435761U);
    test::WriteFile(m_dir / "in/folder/long", bytes.substr(0, kLong));
    for (const char* name : {"a", "m", "z"})
      test::WriteFile(m_dir / ("in/" + std::string(name)), name);
    Build({});
    m_image = test::ReadFile(m_dir / "x.cap");
  }

  void Build(const BuildOptions& options) const {
    ImageBuilder builder(m_dir / "x.cap", options);
    builder.AddDirectories({m_dir / "in", m_dir / "in/folder"});
    static_cast<void>(builder.Finish());
  }

  // What lies in a folder, and below.
  std::vector<std::string> Names(const std::string& folder) const {
    std::vector<std::string> names;
    for (const auto& item : fs::recursive_directory_iterator(m_dir / folder)) {
      names.push_back(fs::relative(item.path(), m_dir / folder));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::vector<Operation> Operations() const {
    const auto index = [this](DamagedSections how) {
      return [this, how](OnProgress tell, std::stop_token stop) {
        static_cast<void>(IndexWriter(m_dir / "x.cap").Write({how, tell, stop}));
      };
    };
    const auto verify = [this](int jobs) {
      return [this, jobs](OnProgress tell, std::stop_token stop) {
        const auto take = [](const Fault& fault) { ADD_FAILURE() << fault.reason; };
        static_cast<void>(Verifier(m_dir / "x.cap").Run(take, {tell, stop, jobs}));
      };
    };
    return {
        {"build",
         [this](OnProgress tell, std::stop_token stop) {
           Build({.onProgress = tell, .countFirst = true, .stop = stop});
         }},
        {"extract",
         [this](OnProgress tell, std::stop_token stop) {
           fs::remove_all(m_dir / "out");
           fs::create_directory(m_dir / "out");
           const Image image(m_dir / "x.cap");
           Extractor extractor(image, m_dir / "out", {.onProgress = tell, .stop = stop});
           static_cast<void>(extractor.Run());
         }},
        {"extract what is left",
         [this](OnProgress tell, std::stop_token stop) {
           fs::remove_all(m_dir / "out");
           fs::create_directory(m_dir / "out");
           const Image image(m_dir / "x.cap");
           Extractor extractor(image, m_dir / "out",
                               {.onDamage = OnDamage::Zero, .onProgress = tell, .stop = stop});
           static_cast<void>(extractor.Run());
         }},
        {"verify", verify(1)},
        {"verify on threads", verify(3)},
        {"index", index(DamagedSections::Refuse)},
        {"index what is left", index(DamagedSections::IndexWhatIsLeft)},
    };
  }

  test::TempDir m_dir;
  std::string m_image;
};

TEST_F(ProgressTest, GoesFromNothingToAllAlsoWithinALongFile) {
  for (const Operation& operation : Operations()) {
    SCOPED_TRACE(operation.name);
    std::vector<Progress> told;
    operation.run([&](const Progress& at) { told.push_back(at); }, {});
    ASSERT_GT(told.size(), 7u);
    size_t within = 0;
    for (size_t i = 1; i < told.size(); ++i) {
      EXPECT_GE(told[i].bytesDone, told[i - 1].bytesDone);
      EXPECT_GE(told[i].files, told[i - 1].files);
      EXPECT_EQ(told[i].bytesTotal, told[0].bytesTotal);
      const bool isLong = told[i].path == "0:/folder/long" && told[i].path == told[i - 1].path;
      within += isLong && told[i].bytesDone > told[i - 1].bytesDone ? 1 : 0;
    }
    EXPECT_GT(within, 2u);
    EXPECT_GT(told[0].bytesTotal, kLong / 2);
    EXPECT_EQ(told.back().bytesDone, told.back().bytesTotal);
    EXPECT_EQ(test::ReadFile(m_dir / "x.cap"), m_image);
  }
}

TEST_F(ProgressTest, WhatIsCancelledAtAnyTimeLeavesNothingHalfDone) {
  const std::vector<std::string> before = Names(".");
  for (const Operation& operation : Operations()) {
    size_t calls = 0;
    operation.run([&](const Progress&) { ++calls; }, {});
    for (const size_t last : {size_t{0}, size_t{1}, calls / 3, calls * 2 / 3, calls}) {
      SCOPED_TRACE(operation.name + " " + std::to_string(last));
      std::stop_source stop;
      if (last == 0) stop.request_stop();
      size_t call = 0;
      const auto tell = [&](const Progress&) {
        if (++call == last) stop.request_stop();
      };
      try {
        operation.run(tell, stop.get_token());
        ADD_FAILURE() << "was not cancelled";
      } catch (const Error& error) {
        EXPECT_EQ(error.Kind(), ErrorKind::Cancelled) << error.what();
      }
      EXPECT_EQ(call, last);
      EXPECT_TRUE(test::ReadFile(m_dir / "x.cap") == m_image);
      if (fs::exists(m_dir / "out")) {
        for (const std::string& name : Names("out")) {
          EXPECT_EQ(name.find("capsule-tmp"), std::string::npos);
          const bool isLong = name.ends_with("/long");
          EXPECT_TRUE(!isLong || fs::file_size(m_dir / ("out/" + name)) == kLong);
        }
      }
      fs::remove_all(m_dir / "out");
      EXPECT_EQ(Names("."), before);
    }
  }
}

TEST_F(ProgressTest, WhatACallbackThrowsEndsTheBuildLikeCancelling) {
  const auto throwing = [](auto what, uint64_t from) {
    return [=](const Progress& at) {
      if (at.path == "0:/folder/long" && at.bytesDone >= from) throw what;
    };
  };
  for (const uint64_t from : {uint64_t{1}, kLong / 2, kLong}) {
    EXPECT_THROW(Build({.onProgress = throwing(3, from)}), int);
    EXPECT_THROW(Build({.onProgress = throwing(std::bad_alloc(), from)}), std::bad_alloc);
    EXPECT_TRUE(test::ReadFile(m_dir / "x.cap") == m_image);
    EXPECT_EQ(Names(".").size(), 7u);
  }
}

// An error of the host is none of a file.
TEST_F(ProgressTest, AnErrorThatACallbackThrowsEndsTheOperation) {
  for (const Operation& operation : Operations()) {
    size_t calls = 0;
    operation.run([&](const Progress&) { ++calls; }, {});
    for (const size_t last : {size_t{1}, calls / 3, calls / 2, calls * 2 / 3, calls}) {
      SCOPED_TRACE(operation.name + " " + std::to_string(last));
      size_t call = 0;
      const auto tell = [&](const Progress&) {
        if (++call == last) throw Error(ErrorKind::NoSpace, "mine", "own");
      };
      try {
        operation.run(tell, {});
        ADD_FAILURE() << "went on";
      } catch (const Error& error) {
        EXPECT_STREQ(error.what(), "mine: own");
      }
      EXPECT_TRUE(test::ReadFile(m_dir / "x.cap") == m_image);
    }
  }
}

// One file is larger than any image, the other grows when it has been counted.
TEST_F(ProgressTest, NoMoreIsDoneThanThereIs) {
  struct Growing : ByteSource {
    uint64_t Size() const override { return size *= 10; }
    size_t ReadAt(uint64_t, std::span<unsigned char> out) const override { return out.size(); }
    mutable uint64_t size = 10000;
  };
  Progress last;
  const auto tell = [&](const Progress& at) {
    EXPECT_LE(at.bytesDone, at.bytesTotal);
    last = at;
  };
  ImageBuilder builder(m_dir / "x.cap", {.onProgress = tell, .countFirst = true});
  const auto huge = FunctionSource(~uint64_t{0}, [](uint64_t, auto) { return size_t{0}; });
  builder.AddItems({{.path = "grows", .bytes = std::make_shared<Growing>()},
                    {.path = "huge", .bytes = huge},
                    {.path = "z"}});
  EXPECT_EQ(last.bytesDone, 1000000u);
  EXPECT_EQ(last.bytesTotal, last.bytesDone);
}

TEST_F(ProgressTest, WhatASourceThrowsEndsTheBuild) {
  const auto throwing = [](uint64_t, std::span<unsigned char>) -> size_t {
    throw std::bad_alloc();
  };
  ImageBuilder builder(m_dir / "x.cap");
  EXPECT_THROW(builder.AddItems({{.path = "f", .bytes = FunctionSource(9, throwing)}}),
               std::bad_alloc);
}

}  // namespace
}  // namespace capsule::host
