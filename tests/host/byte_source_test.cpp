#include "capsule/host/byte_source.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

#include "capsule/host/file/file_window.h"
#include "capsule/host/image.h"
#include "capsule/host/image_map.h"
#include "capsule/host/verifier.h"
#include "capsule/platform/file.h"
#include "capsule/platform/scoped_descriptor.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using test::ErrorOf;

// All that readers tell of an image: its tree with the files' bytes, its faults, and its map.
std::string Everything(const std::shared_ptr<const ByteSource>& source) {
  std::string told;
  const Image image(source, "image", Opening::Salvage);
  test::ForEachEntry(image, [&](const Entry& entry) {
    told += entry.Path() + ' ' + std::to_string(entry.Size()) + '\n';
    if (!entry.IsDirectory()) {
      const auto take = [&](std::span<const unsigned char> bytes, uint64_t zeros) {
        told.append(bytes.begin(), bytes.end()).append(zeros, '\0');
      };
      image.CopyLeft(entry, 0, entry.Size(), OnDamage::Zero, take, nullptr);
    }
  });
  const auto fault = [&](const Fault& found) { told += found.path + ": " + found.reason + '\n'; };
  told += std::to_string(Verifier(source, "image").Run(fault).bytes);
  MapImage(source, "image", [&](const MapItem& item) { told += item.text + item.problem; });
  return told;
}

// As if from afar: a function hands the bytes out.
std::shared_ptr<const ByteSource> Handed(const std::string& bytes) {
  return FunctionSource(bytes.size(), [&bytes](uint64_t offset, std::span<unsigned char> out) {
    return MemorySource({test::Unsigned(bytes), bytes.size()})->ReadAt(offset, out);
  });
}

TEST(ByteSourceTest, AnImageIsTheSameWhereverItsBytesComeFrom) {
  for (const char* name : {"w_names.img", "f_16384_lzs.img", "faults/unit_without_end.img"}) {
    const std::string path = test::SamplePath(name);
    const std::string bytes = test::ReadFile(path);
    const std::string told = Everything(FileSource(path));
    const platform::ScopedDescriptor file(platform::OpenForReading(path.c_str()));
    EXPECT_EQ(Everything(DescriptorSource(file.Get())), told) << name;
    EXPECT_EQ(Everything(MemorySource({test::Unsigned(bytes), bytes.size()})), told) << name;
    EXPECT_EQ(Everything(Handed(bytes)), told) << name;
  }
}

// Each read fails in turn, as reading from afar may.
TEST(ByteSourceTest, WhatASourceThrowsNamesTheImageOrArrivesAsItIs) {
  const std::string bytes = test::ReadFile(test::SamplePath("w_names.img"));
  int left = 0;
  const auto failing = [&](auto exception) {
    return FunctionSource(bytes.size(), [&, exception](uint64_t at, std::span<unsigned char> out) {
      if (left-- == 0) throw exception;
      return Handed(bytes)->ReadAt(at, out);
    });
  };
  const std::system_error broken(EIO, std::generic_category());
  int reads = 0;
  for (std::string error = "x"; !error.empty(); ++reads) {
    left = reads;
    error = ErrorOf([&] { const Image image(failing(broken), "far.cap"); });
    if (error.empty()) break;
    EXPECT_TRUE(error.starts_with("far.cap: ") && error.ends_with("input/output error")) << error;
  }
  EXPECT_GT(reads, 2);
  left = 1;
  EXPECT_THROW(Image(failing(std::logic_error("of the host")), "far.cap"), std::logic_error);
}

// A host can tell a source that fails from an image that is damaged.
TEST(ByteSourceTest, ASourceThatFailsIsNoDamageOfItsFiles) {
  const std::string bytes = test::ReadFile(test::SamplePath("f_16384_lzs.img"));
  int code = 0;
  const auto source = FunctionSource(bytes.size(), [&](uint64_t at, std::span<unsigned char> out) {
    if (code != 0) throw std::system_error(code, std::generic_category());
    return Handed(bytes)->ReadAt(at, out);
  });
  const Image image(source, "far.cap");
  test::ForEachEntry(image, [&](const Entry& entry) {
    if (entry.IsDirectory() || entry.Size() == 0) return;
    code = EIO;
    try {
      test::ReadAll(image, entry);
      ADD_FAILURE() << entry.Path();
    } catch (const Error& error) {
      EXPECT_EQ(static_cast<int>(error.Kind()), static_cast<int>(ErrorKind::System));
      EXPECT_EQ(error.Code().value(), EIO) << error.what();
    }
    code = ENOMEM;
    EXPECT_THROW(test::ReadAll(image, entry), ShortageError);
    EXPECT_THROW(image.ReadDamaged(entry, 0, entry.Size(), [](const FilePiece&) {}), ShortageError);
    code = 0;
  });
}

// Whoever looks for something byte by byte asks beyond the end time and again.
TEST(ByteSourceTest, TheEndOfAnImageIsReadOnce) {
  const std::string bytes(1000, 'x');
  int reads = 0;
  const auto counting =
      FunctionSource(bytes.size(), [&](uint64_t at, std::span<unsigned char> out) {
        ++reads;
        return Handed(bytes)->ReadAt(at, out);
      });
  FileWindow window(ImageFile(counting, "x"));
  for (size_t at = 900; at < 1010; ++at) {
    EXPECT_EQ(window.At(at, 200).size(), at < 1000 ? 1000 - at : 0);
  }
  EXPECT_EQ(reads, 1);
}

TEST(ByteSourceTest, CopyToHandsOutExactlyTheRange) {
  const Image image(test::SamplePath("f_16384_lzs.img"));
  test::ForEachEntry(image, [&](const Entry& entry) {
    if (entry.IsDirectory()) return;
    const std::string whole = test::ReadAll(image, entry);
    FileReader reader = image.OpenFile(entry);
    const uint64_t size = entry.Size();
    for (const uint64_t at :
         {uint64_t{0}, size / 3, size - std::min<uint64_t>(size, 1), size + 5}) {
      std::string got;
      reader.CopyTo(at, size / 2, [&](auto piece) { got.append(piece.begin(), piece.end()); });
      EXPECT_EQ(got, at < size ? whole.substr(at, size / 2) : "") << entry.Path() << " from " << at;
    }
  });
}

}  // namespace
}  // namespace capsule::host
