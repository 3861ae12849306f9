// Scrambling adds the key, then replaces every byte by the sum of all up to it, then complements
// the first. Restoring undoes the three in reverse.
#include "capsule/container/header_scramble.h"

#include <cstring>
#include <span>
#include <string_view>

#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

using Region = std::span<unsigned char>;

constexpr size_t kStoredSum = 4;

uint32_t Checksum(Region region) {
  uint32_t sum = 0;
  uint32_t exclusive = 0;
  for (const unsigned char byte : region) {
    sum += byte;
    exclusive ^= byte;
  }
  return (exclusive << 16) + (sum & 0xFFFF);
}

unsigned char KeyByte(std::string_view key, size_t i) {
  return key.empty() ? 0 : static_cast<unsigned char>(key[i % key.size()]);
}

unsigned char Low8(unsigned value) { return static_cast<unsigned char>(value); }

void Scramble(Region region, std::string_view key) {
  unsigned char sum = 0;
  for (size_t i = 0; i < region.size(); ++i) {
    sum = Low8(sum + region[i] + 0U + KeyByte(key, i));
    region[i] = sum;
  }
  region[0] = Low8(~region[0] + 0U);
}

void Unscramble(Region region, std::string_view key) {
  region[0] = Low8(~region[0] + 0U);
  unsigned char before = 0;
  for (size_t i = 0; i < region.size(); ++i) {
    const unsigned char scrambled = region[i];
    region[i] = Low8(scrambled + 512U - before - KeyByte(key, i));
    before = scrambled;
  }
}

}  // namespace

uint32_t HeaderScramble(unsigned char* data, const char* key, int length, int mode) {
  if (data == nullptr || mode < 0 || mode > 4) return 0;
  const bool sumStored = mode == 2 || mode == 3;
  if (length < (sumStored ? static_cast<int>(kStoredSum) : 1)) return 0;
  const Region region(data, static_cast<size_t>(length));
  const std::string_view keyText = key == nullptr ? "" : key;

  if (mode == 1 || mode == 3) Unscramble(region, keyText);
  const uint32_t checksum = Checksum(sumStored ? region.subspan(kStoredSum) : region);
  if (mode == 2) platform::StoreLe32(data, checksum);
  if (mode == 0 || mode == 2) Scramble(region, keyText);
  return checksum;
}

}  // namespace capsule
