// Reading that begins in the middle of long files.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/host/extractor.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/image_map.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/message_text.h"
#include "capsule/host/verifier.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/bytes.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

constexpr size_t kMega = size_t{1} << 20;
constexpr size_t kSize = 7 * kMega + 4321;

// An image with one file of lines.
class RestartPoints : public testing::Test {
 protected:
  RestartPoints() {
    for (int64_t i = 0; m_text.size() < kSize; ++i)
      m_text += "line " + std::to_string(i * 7919) + "\n";
    m_text.resize(kSize);
    std::filesystem::create_directory(m_folder / "in");
    test::WriteFile(m_folder / "in/long.txt", m_text);
  }

  void Build(int level) {
    ImageBuilder builder(m_path, {.level = level});
    builder.AddDirectory(m_folder / "in");
    static_cast<void>(builder.Finish());
    m_bytes = test::ReadFile(m_path);
    m_blocks.clear();
    m_notes.clear();
    MapImage(m_path, [&](const MapItem& item) {
      if (item.kind == MapItem::Kind::DataBlock) m_blocks.push_back(item.offset);
      if (item.kind == MapItem::Kind::IndexRecord && item.name == "seek=") m_notes.push_back(item);
    });
  }

  // The chunk at `offset` of the file becomes one that cannot be decoded.
  void Damage(size_t offset) {
    const auto at = static_cast<std::ptrdiff_t>(m_blocks[offset / 8192] + 8);
    std::fill_n(m_bytes.begin() + at, 40, '\xFF');
    test::WriteFile(m_path, m_bytes);
  }

  std::string Range(FileReader& reader, size_t offset, size_t count) const {
    std::vector<unsigned char> bytes(count);
    bytes.resize(reader.Read(offset, bytes));
    return {bytes.begin(), bytes.end()};
  }

  // The index as it would be with its check value made anew.
  void SaveWithNewCheckValue(std::string bytes) const {
    const size_t index = test::U32At(bytes, kIndexOffsetOffset);
    IndexChecksum checksum;
    checksum.Update(
        {test::Unsigned(bytes) + index + kIndexPreamble, bytes.size() - index - kIndexPreamble});
    std::array<unsigned char, 4> value{};
    platform::StoreLe32(value.data(), checksum.Value());
    std::copy(value.begin(), value.end(), &bytes[index + 3]);
    test::WriteFile(m_path, bytes);
  }

  // The faults; they and all else that is told are the same with any number of threads.
  std::string Faults() const {
    std::string first;
    std::string faults;
    for (const int jobs : {1, 2, 8}) {
      std::string told;
      faults.clear();
      VerifyOptions options{.jobs = jobs};
      options.onProgress = [&](const Progress& at) {
        told += at.path + ' ' + std::to_string(at.bytesDone) + '\n';
      };
      const auto report = Verifier(m_path).Run(
          [&](const Fault& fault) {
            faults += fault.path + ": " + fault.reason;
            told += faults;
          },
          options);
      told += std::to_string(report.files) + ' ' + std::to_string(report.bytes);
      if (jobs == 1) first = told;
      EXPECT_EQ(told, first) << jobs;
    }
    return faults;
  }

  test::TempDir m_folder;
  std::string m_path = m_folder / "x.cap";
  std::string m_text;
  std::string m_bytes;
  std::vector<uint64_t> m_blocks;
  std::vector<MapItem> m_notes;
};

// What lies before the restart point is not decoded: damage there does no harm.
TEST_F(RestartPoints, LetReadingBeginInTheMiddle) {
  for (const int level : {0, 6}) {
    Build(level);
    ASSERT_EQ(m_notes.size(), 7U);
    EXPECT_EQ(m_notes[2].target, m_blocks[3 * kMega / 8192]);
    EXPECT_LT(m_notes[2].length, level == 0 ? 25U : 2068U);
    static_cast<void>(IndexWriter(m_path).Write());
    EXPECT_EQ(test::ReadFile(m_path) == m_bytes, true);
  }
  Damage(5 * kMega / 2);
  const Image image(m_path);
  FileReader reader = image.OpenFile(*image.Find("long.txt"));
  const auto check = [&](size_t at, size_t count = 1000) {
    EXPECT_EQ(Range(reader, at, count), m_text.substr(at, count)) << at;
  };
  for (const size_t at : {6 * kMega + 100'000, kSize - 500, 3 * kMega, kMega + 5, 4 * kMega - 10})
    check(at);
  EXPECT_THROW(Range(reader, 3 * kMega - 10, 1000), Error);
  check(5, 2 * kMega);
  EXPECT_THROW(Range(reader, 0, 4 * kMega), Error);
  check(3 * kMega + 7);
}

// Whatever happens between two restart points, what lies behind the second is all there.
TEST_F(RestartPoints, EndWhatDamageDoes) {
  Build(6);
  m_bytes.replace(m_blocks[11 * kMega / 16384], 40, 40, '\0');
  for (const size_t behind : {0, 90'000, 300'000}) Damage(5 * kMega / 2 + behind);
  const Image image(m_path);
  std::string got;
  uint64_t firstLost = kSize;
  uint64_t endLost = 0;
  image.ReadDamaged(*image.Find("long.txt"), 0, kSize, [&](const FilePiece& piece) {
    if (piece.kind == FilePiece::Kind::Data) got.append(piece.bytes.begin(), piece.bytes.end());
    if (piece.kind != FilePiece::Kind::Lost) return;
    firstLost = std::min(firstLost, piece.offset);
    endLost = piece.offset + piece.length;
    got += m_text.substr(piece.offset, piece.length);
  });
  EXPECT_EQ(got == m_text, true);
  EXPECT_EQ(firstLost, 5 * kMega / 2);
  EXPECT_GT(endLost, 11 * kMega / 2);
  EXPECT_LE(endLost, 6 * kMega);
}

TEST_F(RestartPoints, AreVerified) {
  Build(6);
  const auto faults = [&](const MapItem& note, size_t at) {
    std::string bytes = m_bytes;
    bytes[note.offset + at] ^= 1;
    SaveWithNewCheckValue(bytes);
    return Faults();
  };
  constexpr size_t kName = 3;
  const std::string start = "0:/long.txt: restart point ";
  EXPECT_EQ(faults(m_notes[1], kName + 6),
            start + "is for byte 2097408 of the file, byte 2097152 is here");
  EXPECT_EQ(faults(m_notes[6], kName + 1000), start + "has another history than the file");
  EXPECT_EQ(faults(m_notes[5], m_notes[5].length - 8), start + "is where no data block begins");
  EXPECT_EQ(faults(m_notes[6], m_notes[6].length - 8),
            start + "does not lie in the item before it");
  EXPECT_EQ(faults(m_notes[0], kName), "");  // no longer one
  // At the fourth, decoding begins on another thread.
  EXPECT_EQ(faults(m_notes[3], kName + 6),
            start + "is for byte 4194560 of the file, byte 4194304 is here");
  EXPECT_EQ(faults(m_notes[3], kName + 1000), start + "has another history than the file");
  EXPECT_EQ(faults(m_notes[3], m_notes[3].length - 8), start + "is where no data block begins");
  EXPECT_EQ(faults(m_notes[3], kName), "");
}

// What is told of a long file does not depend on where it is parted.
TEST_F(RestartPoints, AreWhereFilesArePartedWhenVerified) {
  Build(6);
  const std::string whole = m_bytes;
  for (const size_t chunk : {0, 511, 512, 600}) {
    m_bytes = whole;
    Damage(chunk * 8192);
    EXPECT_NE(Faults().find("data block at " + Hex(m_blocks[chunk])), std::string::npos) << chunk;
  }
  size_t others = 0;
  for (size_t back = 9; back < 2000; back += 101) {
    std::string bytes = whole;
    bytes[m_blocks[512] - back] ^= 1;
    test::WriteFile(m_path, bytes);
    others += Faults().find("has another history than the file") == std::string::npos ? 0 : 1;
  }
  EXPECT_GT(others, 5U);
}

// Whatever they tell, all of the file comes out: a span that begins at a wrong one does not count.
TEST_F(RestartPoints, NeverChangeWhatIsExtracted) {
  Build(6);
  const auto extracted = [&](const std::string& bytes) {
    SaveWithNewCheckValue(bytes);
    std::filesystem::remove_all(m_folder / "out");
    std::filesystem::create_directory(m_folder / "out");
    const Image image(m_path);
    const ExtractReport report = Extractor(image, m_folder / "out", {.jobs = 8}).Run();
    EXPECT_EQ(report.files, 1U);
    return test::ReadFile(m_folder / "out/long.txt");
  };
  EXPECT_TRUE(extracted(m_bytes) == m_text);
  for (const size_t at : {size_t{9}, size_t{1000}, size_t{2050}, m_notes[3].length - 8}) {
    std::string bytes = m_bytes;
    bytes[m_notes[3].offset + at] ^= 1;
    EXPECT_TRUE(extracted(bytes) == m_text) << at;
  }
  // Two for one place, of which only the second is forged.
  ASSERT_EQ(m_notes[3].length, m_notes[4].length);
  for (size_t back = 20; back < 2000; back += 90) {
    std::string bytes = m_bytes;
    bytes.replace(m_notes[4].offset, m_notes[4].length, m_bytes, m_notes[3].offset,
                  m_notes[3].length);
    bytes[m_notes[4].offset + m_notes[4].length - back] ^= 1;
    EXPECT_TRUE(extracted(bytes) == m_text) << back;
  }
}

}  // namespace
}  // namespace capsule::host
