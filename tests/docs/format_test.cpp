// docs/format.md shows a whole image in hex, and a few bytes in its sentences: they are what the
// library writes and reads.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/container/header_scramble.h"
#include "capsule/container/index_format.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/host/index/partition_label.h"
#include "capsule/partition/record_format.h"
#include "tests/support/bytes.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::Hex;

std::string Document() { return test::ReadFile(CAPSULE_FORMAT_DOCUMENT); }

// Puts the bytes of one line, "OFFSET  bytes   what they are", in their place.
void PutLine(const std::string& line, std::string* image) {
  static const std::regex pattern("([0-9A-F]{8})  ([0-9A-F]{2}(?: [0-9A-F]{2})*)(?:   .*)?");
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(line, parts, pattern)) << line;
  const size_t offset = std::stoul(parts[1], nullptr, 16);
  const std::string bytes = Hex(parts[2]);
  ASSERT_GE(offset, image->find_last_not_of('\0') + 1) << "out of order: " << line;
  image->resize(std::max(image->size(), offset + bytes.size()));
  image->replace(offset, bytes.size(), bytes);
}

// What the blocks fenced with "hex" say, zeros in between.
std::string DocumentedImage() {
  std::string image;
  std::istringstream lines(Document());
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line == "```") inside = false;
    if (inside) PutLine(line, &image);
    if (line == "```hex") inside = true;
  }
  return image;
}

TEST(FormatDocument, ShowsTheImageThatIsBuilt) {
  test::SourceTree tree;
  tree.AddFile("Letters/B.TXT", "");
  tree.AddFile("Letters/To Anna.txt", "aaaaaaaaaa");
  for (const char* name : {"Letters/B.TXT", "Letters/To Anna.txt", "Letters", ""}) {
    tree.SetTime(name, 981173106);  // 2001-02-03 04:05:06
  }
  host::ImageBuilder builder(tree.Beside("built.cap"));
  builder.AddDirectory(tree.Root());
  static_cast<void>(builder.Finish());
  const std::string built = test::ReadFile(tree.Beside("built.cap"));
  const std::string documented = DocumentedImage();
  ASSERT_EQ(documented.size(), 11825U);
  ASSERT_EQ(built.size(), documented.size());
  for (size_t i = 0; i < built.size(); ++i) ASSERT_EQ(documented[i], built[i]) << i;

  test::WriteFile(tree.Beside("documented.cap"), documented);
  const host::Image image(tree.Beside("documented.cap"));
  EXPECT_TRUE(image.Info().checked);
  std::vector<unsigned char> bytes(20);
  EXPECT_EQ(image.Read(*image.Find("0:/Letters/To Anna.txt"), 0, bytes), 10U);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 10), "aaaaaaaaaa");
}

std::string Scrambled(std::string bytes) {
  std::vector<unsigned char> region(bytes.begin(), bytes.end());
  HeaderScramble(region.data(), "", static_cast<int>(region.size()), 0);
  return {region.begin(), region.end()};
}

std::string Compressed(const std::string& bytes) {
  StreamCompressor compressor(16384, LzsKeepHistory, 0);
  compressor.ResetCompressionHistory();
  compressor.CompressBuffer(test::Unsigned(bytes), static_cast<uint32_t>(bytes.size()), nullptr, 0);
  return {compressor.GetResult(), compressor.GetResult() + compressor.GetCompressedSize()};
}

// The bytes of an index record that says so, and that is read as saying so.
std::string Note(const DamageNote& note) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord(RecordOf(note), &bytes);
  platform::ByteReader reader(bytes);
  const auto read = DamageNoteOf(TakeIndexRecord(reader));
  EXPECT_TRUE(read && read->offset == note.offset && read->length == note.length &&
              read->isCut == note.isCut && read->reason == note.reason);
  return {bytes.begin(), bytes.end()};
}

std::string Label(const IndexRecord& section, const std::string& label) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord(host::LabelRecord(section, label), &bytes);
  platform::ByteReader reader(bytes);
  EXPECT_EQ(host::LabelOf(TakeIndexRecord(reader)), label);
  return {bytes.begin(), bytes.end()};
}

TEST(FormatDocument, SaysRightWhatItSaysInSentences) {
  const auto zeroEntry = EncodeZeroEntry();
  const std::map<std::string, std::string> expected = {
      {"9E C3 26", Scrambled("abc")},
      {"61 62 63", "abc"},
      {"16 01 00 00 00 00 20 00", {zeroEntry.begin(), zeroEntry.begin() + 8}},
      {"30 E0 7C 70 00", Compressed(std::string(10, 'a'))},
      {"C0 00", Compressed("")},
      {"06 0B 00 64 61 6D 61 67 65 64 3D 62 61 64 58 26 00 00 70 00 00 00",
       Note({0x2658, 0x70, "bad", false})},
      {"06 06 00 6E 61 6D 65 3D 61 88 1D 00 00 08 08 00 00",
       Label({kIndexSection, "", 7560, 2056}, "a")},
      {"06 07 00 63 75 74 3D 65 6E 64 00 00 00 00 88 1D 00 00", Note({0, 7560, "end", true})},
  };
  const std::string document = Document();
  std::set<std::string> found;
  const std::regex pattern("`([0-9A-F]{2}(?: [0-9A-F]{2})+)`");
  for (std::sregex_iterator at(document.begin(), document.end(), pattern), end; at != end; ++at) {
    const std::string span = (*at)[1];
    found.insert(span);
    ASSERT_TRUE(expected.contains(span)) << span << " is checked by nothing";
    EXPECT_EQ(Hex(span), expected.at(span)) << span;
  }
  EXPECT_EQ(found.size(), expected.size());
  const std::string name = "README  TXT";
  EXPECT_EQ(ShortNameChecksum(std::span<const unsigned char, 11>(test::Unsigned(name), 11)), 0x73);
  EXPECT_NE(document.find("That of `README  TXT` is 0x73"), std::string::npos);
}

}  // namespace
}  // namespace capsule
