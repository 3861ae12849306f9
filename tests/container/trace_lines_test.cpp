// What the two trace files say of an image that is opened and read.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

const std::string kBegin = "==== BEGIN DEBUGGING ====\n";
const std::string kEnd = "==== END DEBUGGING ====\n";

// The text of a trace file, with N for the addresses in memory.
std::string Trace(const std::string& path) {
  const std::string mark = "start: ";
  std::string text = test::ReadFile(path);
  for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
    at += mark.size();
    text.replace(at, text.find_first_not_of("-0123456789", at) - at, "N");
  }
  return text;
}

TEST(TraceLines, TellOfTheIndexAndOfEachDataBlock) {
  test::ImageMaker maker(true);
  maker.BeginSection();
  maker.IndexRecords().push_back({4, "", 0, 0});
  maker.IndexRecords().push_back({6, "a note", 7560, 3000});
  maker.IndexRecords().push_back({9, "", 0, 0});
  const uint32_t plain = maker.Here();
  maker.File("PLAIN      ", 600);
  maker.Stored(std::string(600, 'p'));
  const uint32_t packed = maker.Here();
  maker.File("PACKED     ", 10);
  maker.Data(1, 512, test::Hex("30 E0 7C 40 18 1F") + std::string(16, '\xFF') + test::Hex("DC 00"));
  maker.EndSection();
  const uint32_t last = maker.Here() - 40;
  const test::TempDir dir;
  test::WriteFile(dir / "image", maker.Finish());
  const std::string command = "THORNWICK_DEBUG_TRACER='" + (dir / "main") +
                              "' THORNWICK_DEBUG_CAPCODEC_OUTPUT='" + (dir / "index") +
                              "' '" READING_CHILD "' '" + (dir / "image") + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);

  const auto number = [](uint32_t value) { return std::to_string(value); };
  EXPECT_EQ(Trace(dir / "index"),
            kBegin + "PhysicalPartition - Index Offset: 7560\n" + "Default: 9616\n" +
                "Logical Partition - Index Offset: 7560\n" + "Default: 10560\n" +
                "Index Offset(store in _file_offsets vect): " + number(plain) + "\n" +
                "Index Offset(store in _file_offsets vect): " + number(packed) + "\n" +
                "Index Offset(store in _file_offsets vect): " + number(last) + "\n" + kEnd);

  const std::string plainData = number(plain + 48) + " \n";
  const std::string packedData = number(packed + 48) + " \n";
  EXPECT_EQ(
      Trace(dir / "main"),
      kBegin + "(CpsFile 547) Index read\n" + "Read of Compressed Buffer: len: 1024 : offset: " +
          plainData + "Total Data Blocks: 1 \n" + "File Block: 0 : Offset: " + plainData +
          "Uncompressed buffer read - len: 1024 : offset: " + plainData +
          "Writing output buffer: start: N : len: 400 \n" + "Total Data Blocks: 1 \n" +
          "File Block: 0 : Offset: " + plainData + "Writing output buffer: start: N : len: 200 \n" +
          "Read of Compressed Buffer: len: 24 : offset: " + packedData + "Total Data Blocks: 1 \n" +
          "File Block: 0 : Offset: " + packedData +
          "Uncompressed buffer read - len: 24 : offset: " + packedData +
          "Writing output buffer: start: N : len: 10 \n" + kEnd);
}

}  // namespace
}  // namespace capsule
