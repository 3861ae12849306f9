// docs/format.md shows a whole image in hex, and a few bytes in its sentences: they are what the
// library writes and reads.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/container/header_scramble.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/partition/record_format.h"
#include "tests/support/bytes.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::Hex;

std::string Document() { return test::ReadFile(CAPSULE_FORMAT_DOCUMENT); }

// The bytes at the start of `text`, spelled "0A 1B"; empty when it does not begin so.
std::string LeadingHex(const std::string& text) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  size_t end = 0;
  const auto pairAt = [&](size_t at) {
    return text.find_first_not_of(kDigits, at) == at + 2 || text.size() == at + 2;
  };
  if (text.find_first_of(kDigits) != 0) return "";
  while (pairAt(end)) {
    end += 2;
    if (end >= text.size() || text[end] != ' ' || !pairAt(end + 1)) return text.substr(0, end);
    ++end;
  }
  return "";
}

// Puts the bytes of one line, "OFFSET  bytes   what they are", in their place.
void PutLine(const std::string& line, std::string* image) {
  ASSERT_EQ(line.find_first_not_of("0123456789ABCDEF"), 8U) << line;
  const size_t offset = std::stoul(line.substr(0, 8), nullptr, 16);
  const std::string hex = LeadingHex(line.substr(10));
  ASSERT_FALSE(hex.empty()) << line;
  ASSERT_TRUE(line.size() == 10 + hex.size() || line.compare(10 + hex.size(), 3, "   ") == 0)
      << line;
  const std::string bytes = Hex(hex);
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
  builder.Finish();
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

TEST(FormatDocument, SaysRightWhatItSaysInSentences) {
  const auto zeroEntry = EncodeZeroEntry();
  const std::map<std::string, std::string> expected = {
      {"9E C3 26", Scrambled("abc")},
      {"61 62 63", "abc"},
      {"16 01 00 00 00 00 20 00", {zeroEntry.begin(), zeroEntry.begin() + 8}},
      {"30 E0 7C 70 00", Compressed(std::string(10, 'a'))},
      {"C0 00", Compressed("")},
  };
  const std::string document = Document();
  std::map<std::string, int> found;
  for (size_t at = 0; (at = document.find('`', at)) != std::string::npos; ++at) {
    const std::string span = LeadingHex(document.substr(at + 1, 100));
    if (span.size() < 5 || document[at + 1 + span.size()] != '`') continue;
    ++found[span];
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
