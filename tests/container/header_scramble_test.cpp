#include "capsule/container/header_scramble.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

namespace capsule {
namespace {

using Bytes = std::vector<unsigned char>;

uint32_t Scramble(Bytes& bytes, const std::string& key, int mode) {
  return HeaderScramble(bytes.data(), key.c_str(), static_cast<int>(bytes.size()), mode);
}

TEST(HeaderScramble, KnownBytes) {
  Bytes bytes = {'a', 'b', 'c'};
  EXPECT_EQ(Scramble(bytes, "key", 4), 0x600126U);
  EXPECT_EQ(bytes, (Bytes{'a', 'b', 'c'}));
  EXPECT_EQ(Scramble(bytes, "", 0), 0x600126U);
  EXPECT_EQ(bytes, (Bytes{0x9E, 0xC3, 0x26}));
  EXPECT_EQ(Scramble(bytes, "", 1), 0x600126U);
  EXPECT_EQ(bytes, (Bytes{'a', 'b', 'c'}));
}

TEST(HeaderScramble, RestoringUndoesScramblingForAnyKeyAndLength) {
  std::mt19937 random(20011);
  for (int round = 0; round < 500; ++round) {
    Bytes plain(4 + random() % 1900);
    for (unsigned char& byte : plain) byte = static_cast<unsigned char>(random());
    std::string key(random() % 40, ' ');
    for (char& c : key) c = static_cast<char>(1 + random() % 255);

    Bytes bytes = plain;
    const uint32_t sum = Scramble(bytes, key, 0);
    EXPECT_NE(bytes, plain);
    EXPECT_EQ(Scramble(bytes, key, 1), sum);
    EXPECT_EQ(bytes, plain);

    const uint32_t stored = Scramble(bytes, key, 2);
    EXPECT_EQ(Scramble(bytes, key, 3), stored);
    EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.end()), Bytes(plain.begin() + 4, plain.end()));
    EXPECT_EQ(bytes[0] | bytes[1] << 8 | bytes[2] << 16, static_cast<int>(stored));
    EXPECT_EQ(bytes[3], 0);
  }
}

TEST(HeaderScramble, KeyBeyondTheRegionDoesNotMatter) {
  Bytes longKey = {1, 2, 3, 4, 5};
  Bytes cutKey = longKey;
  EXPECT_EQ(Scramble(longKey, "abcdefgh", 0), Scramble(cutKey, "abcde", 0));
  EXPECT_EQ(longKey, cutKey);
}

TEST(HeaderScramble, RefusesWhatItCannotDo) {
  const Bytes plain = {1, 2, 3};
  Bytes bytes = plain;
  for (const int mode : {-1, 5, INT_MAX, 2, 3}) EXPECT_EQ(Scramble(bytes, "key", mode), 0U) << mode;
  EXPECT_EQ(HeaderScramble(bytes.data(), "key", 0, 0), 0U);
  EXPECT_EQ(HeaderScramble(bytes.data(), "key", INT_MIN, 1), 0U);
  EXPECT_EQ(bytes, plain);
}

}  // namespace
}  // namespace capsule
