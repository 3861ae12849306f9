#include "capsule/host/records/unit_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "tests/support/bytes.h"
#include "tests/support/lzs_writer.h"

namespace capsule::host {
namespace {

using test::Bytes;

Bytes FromHex(const std::string& text) {
  const std::string bytes = test::Hex(text);
  return {bytes.begin(), bytes.end()};
}

const Bytes kTenAs = FromHex("30 E0 7C 70 00");
const Bytes kFiveFromTenBack = FromHex("C5 66 00");

// Whatever a unit leaves behind, neither its bytes nor its room are used for the next one, which
// does not decode before the decoder is prepared again.
TEST(UnitDecoder, HoldsNothingOfAUnitThatFailed) {
  Bytes followed = kTenAs;
  followed.push_back(1);
  const std::pair<Bytes, size_t> failing[] = {
      {kTenAs, 4},                     // more than its room, input left
      {FromHex("30 E0 7C"), 64},       // no end, room left
      {FromHex("30 98 8C 78 1E"), 6},  // both used up inside a match
      {kTenAs, 16},                    // an end too early
      {followed, 10},                  // bytes behind the end
      {FromHex("80 00"), 10},
      {Bytes{}, 10}};  // corrupt, nothing
  for (const auto& [unit, room] : failing) {
    SCOPED_TRACE(testing::PrintToString(unit));
    UnitDecoder decoder;
    Bytes source = unit;
    Bytes first(room, 'x');
    EXPECT_NE(decoder.Decode(source, first), "");
    const Bytes before = first;
    std::fill(source.begin(), source.end(), static_cast<unsigned char>(0xFF));
    Bytes second(10);
    EXPECT_NE(decoder.Decode(kTenAs, second), "");
    EXPECT_TRUE(decoder.History().empty());
    EXPECT_EQ(first, before);
    decoder.Reset();
    EXPECT_EQ(decoder.Decode(kTenAs, second), "");
    EXPECT_EQ(second, Bytes(10, 'a'));
  }
}

TEST(UnitDecoder, RestoresAHistoryOfAnyLength) {
  for (const size_t size : {9U, 10U, 2046U, 2047U}) {
    UnitDecoder decoder;
    const Bytes history(size, 'h');
    decoder.Restore(history);
    EXPECT_TRUE(std::ranges::equal(decoder.History(), history)) << size;
    Bytes out(5);
    EXPECT_EQ(decoder.Decode(kFiveFromTenBack, out).empty(), size >= 10) << size;
  }
}

}  // namespace
}  // namespace capsule::host
