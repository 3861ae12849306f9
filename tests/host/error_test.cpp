#include "capsule/host/error.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "capsule/host/byte_source.h"
#include "capsule/host/extractor.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/image_map.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/host/small_image.h"
#include "tests/support/entries.h"
#include "tests/support/process_limit.h"
#include "tests/support/sample_images.h"

namespace capsule::host {
namespace {

using Work = std::function<void()>;

class ErrorTest : public testing::Test {
 protected:
  ErrorTest() {
    std::filesystem::create_directory(m_dir / "source");
    test::WriteFile(m_dir / "text", std::string(9000, 'x'));
    test::WriteFile(m_dir / "source/file", std::string(100000, 'y'));
    Build(m_dir / "whole", m_dir / "source");
    const std::string whole = test::ReadFile(m_dir / "whole");
    test::WriteFile(m_dir / "cut", whole.substr(0, whole.size() - 9));
    test::WriteFile(m_dir / "short", whole.substr(0, 7000));
  }

  static void Build(const std::string& image, const std::string& source) {
    ImageBuilder builder(image);
    builder.AddDirectory(source);
    static_cast<void>(builder.Finish());
  }

  // While the process may not do what only root may.
  static void AsAnybody(const Work& work) {
    const uid_t user = ::geteuid();
    ASSERT_TRUE(user != 0 || ::seteuid(65534) == 0);
    work();
    ASSERT_TRUE(user != 0 || ::seteuid(0) == 0);
  }

  test::TempDir m_dir;
};

TEST_F(ErrorTest, EveryFailureHasItsKind) {
  const auto open = [&](const char* name) {
    return Work([path = m_dir / name] { Image image(path); });
  };
  const auto build = [&](const char* image, const char* source) {
    return Work([image = m_dir / image, source = m_dir / source] { Build(image, source); });
  };
  const Image whole(m_dir / "whole");
  ::mkdir((m_dir / "closed").c_str(), 0);
  struct Case {
    const char* name;
    ErrorKind kind;
    int code;  // errno
    Work work;
  };
  const Case cases[] = {
      {"open nothing", ErrorKind::NotFound, ENOENT, open("none")},
      {"map nothing", ErrorKind::NotFound, ENOENT,
       [&] { MapImage(m_dir / "none", [](const MapItem&) {}); }},
      {"verify nothing", ErrorKind::NotFound, ENOENT,
       [&] { return Verifier(m_dir / "none").Run([](const Fault&) {}); }},
      {"index nothing", ErrorKind::NotFound, ENOENT, [&] { IndexWriter x(m_dir / "none"); }},
      {"build of nothing", ErrorKind::NotFound, ENOENT, build("new", "none")},
      {"build nowhere", ErrorKind::NotFound, ENOENT, build("none/new", "source")},
      {"extract to nowhere", ErrorKind::NotFound, ENOENT,
       [&] { Extractor x(whole, m_dir / "none"); }},
      {"partition 1", ErrorKind::NotFound, 0, [&] { whole.Root(1); }},
      {"build in a closed folder", ErrorKind::NoPermission, EACCES, build("closed/new", "source")},
      {"build of a closed folder", ErrorKind::NoPermission, EACCES, build("new", "closed")},
      {"open a text", ErrorKind::NotAnImage, 0, open("text")},
      {"verify a text", ErrorKind::NotAnImage, 0,
       [&] { return Verifier(m_dir / "text").Run([](const Fault&) {}); }},
      {"index a text", ErrorKind::NotAnImage, 0,
       [&] { return IndexWriter(m_dir / "text").Write(); }},
      {"open a short file", ErrorKind::NotAnImage, 0, open("short")},
      {"open a cut image", ErrorKind::Damaged, 0, open("cut")},
      {"extract to a link", ErrorKind::Unsupported, 0,
       [&] {
         std::filesystem::create_symlink(m_dir / "source", m_dir / "link");
         Extractor x(whole, m_dir / "link");
       }},
      {"cancelled build", ErrorKind::Cancelled, 0,
       [&] {
         ImageBuilder builder(m_dir / "new");
         builder.Cancel();
         builder.AddDirectory(m_dir / "source");
       }},
      {"build without room", ErrorKind::NoSpace, EFBIG,
       [&] {
         const test::ProcessLimit limit(RLIMIT_FSIZE, 9000);
         build("new", "source")();
       }},
      {"build over a text", ErrorKind::Exists, 0, build("text", "source")},
      {"build over a folder", ErrorKind::Exists, 0, build("source", "source")},
      {"level 10", ErrorKind::Misuse, 0, [&] { ImageBuilder x(m_dir / "new", {.level = 10}); }},
      {"nothing to finish", ErrorKind::Misuse, 0,
       [&] { return ImageBuilder(m_dir / "new").Finish(); }},
      {"read a folder", ErrorKind::Misuse, 0, [&] { whole.OpenFile(whole.Root(0)); }},
      {"no entry", ErrorKind::Misuse, 0, [&] { Entry().Name(); }},
      {"open a folder", ErrorKind::System, EISDIR, open("source")},
      {"build of a file", ErrorKind::System, ENOTDIR, build("new", "text")},
  };
  std::filesystem::permissions(m_dir / ".", std::filesystem::perms::all);
  for (const Case& one : cases) {
    const bool isPermission = one.kind == ErrorKind::NoPermission;
    const auto run = [&] {
      try {
        one.work();
        ADD_FAILURE() << one.name << ": nothing was thrown";
      } catch (const Error& error) {
        EXPECT_EQ(static_cast<int>(error.Kind()), static_cast<int>(one.kind))
            << one.name << ": " << error.what();
        EXPECT_EQ(error.Code().value(), one.code) << one.name << ": " << error.what();
      }
    };
    isPermission ? AsAnybody(run) : run();
  }
}

TEST_F(ErrorTest, ShortagesSayWhatRanOut) {
  // What checks types while the tests run needs descriptors itself when it meets one anew.
  EXPECT_EQ(test::ErrorOf([&] { Image image(m_dir / "whole"); }), "");
  EXPECT_NE(test::ErrorOf([&] { Image image(m_dir / "none"); }), "");
  std::error_code code;
  try {
    const test::ProcessLimit limit(RLIMIT_NOFILE, 0);
    Image image(m_dir / "whole");
  } catch (const ShortageError& error) {
    code = error.Code();
  }
  EXPECT_EQ(code, std::errc::too_many_files_open);
}

// Whichever read meets one: a verifier does not go on and call the image damaged for it.
TEST_F(ErrorTest, ShortagesAreNoFaults) {
  const auto ignore = [](const Fault&) {};
  for (const std::string& path :
       {m_dir / "whole", m_dir / "cut", test::SamplePath("n_flat_old.img"),
        test::SamplePath("faults/n_synthetic.img")}) {
    const auto file = FileSource(path);
    int reads = 0;
    int failing = -1;
    const auto source = FunctionSource(file->Size(), [&](uint64_t offset, auto out) {
      if (reads++ != failing) return file->ReadAt(offset, out);
      throw ShortageError(path, "read", std::make_error_code(std::errc::not_enough_memory));
    });
    const Verifier verifier(source, path);
    EXPECT_GT(verifier.Run(ignore).files, 0U);
    const int all = reads;
    for (failing = 0; failing < all; ++failing) {
      reads = 0;
      EXPECT_THROW(static_cast<void>(verifier.Run(ignore)), ShortageError)
          << path << ", read " << failing << " of " << all;
    }
  }
}

// What an image that is about to end would hand out does not compile.
template <typename T>
constexpr bool kHandsOut = requires(T image, Entry entry) {
  std::forward<T>(image).Root(0);
}
|| requires(T image) { std::forward<T>(image).Info(); }
|| requires(T image) { std::forward<T>(image).Problems(); }
|| requires(T image) { std::forward<T>(image).Find("x"); }
|| requires(T image, Entry entry) { std::forward<T>(image).OpenFile(entry); };
static_assert(kHandsOut<Image&> && kHandsOut<const Image&>);
static_assert(!kHandsOut<Image> && !kHandsOut<const Image>);

TEST_F(ErrorTest, WhatWasMovedFromSaysSo) {
  Image image(m_dir / "whole");
  FileReader reader = image.OpenFile(*image.Find("file"));
  ImageBuilder builder(m_dir / "new");
  Extractor extractor(image, m_dir / "source");
  Verifier verifier(m_dir / "whole");
  const Entry entry = image.Root(0);
  const auto movedReader = std::move(reader);
  const auto movedBuilder = std::move(builder);
  auto movedExtractor = std::move(extractor);
  const auto movedVerifier = std::move(verifier);
  std::vector<unsigned char> bytes(9);
  const Work misuses[] = {
      [&] { reader.Size(); },
      [&] { reader.Read(0, bytes); },
      [&] { return builder.Finish(); },
      [&] { builder.AddDirectory(m_dir / "source"); },
      [&] { builder.Problems(); },
      [&] { builder.Cancel(); },
      [&] { extractor.Add(entry); },
      [&] { return extractor.Run(); },
      [&] { return verifier.Run([](const Fault&) {}); },
      [] { Image(std::shared_ptr<const ByteSource>(), "nothing"); },
      [] { MapImage(std::shared_ptr<const ByteSource>(), "nothing", [](const MapItem&) {}); },
  };
  for (const Work& work : misuses) EXPECT_THROW(work(), Error) << &work - misuses;

  const Image moved = std::move(image);
  const Work ofImage[] = {
      [&] { image.Path(); },
      [&] { image.Info(); },
      [&] { image.Problems(); },
      [&] { image.IsWhole(); },
      [&] { image.Partitions(); },
      [&] { image.Root(0); },
      [&] { image.Find("file"); },
      [&] { image.OpenFile(entry); },
      [&] { image.Read(entry, 0, bytes); },
      [&] { image.ReadDamaged(entry, 0, 9, [](const FilePiece&) {}); },
      [&] { return movedExtractor.Run(); },
  };
  for (const Work& work : ofImage) EXPECT_THROW(work(), Error) << &work - ofImage;
  EXPECT_EQ(entry.Children().size(), 1u);
  EXPECT_EQ(moved.Root(0), entry);
}

}  // namespace
}  // namespace capsule::host
