// Whether compressors at a seam go on alike: what they then write, and states changed by hand.
#include "capsule/compression/compressor_state.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "capsule/compression/compression_area.h"
#include "capsule/compression/match_search.h"
#include "capsule/compression/stream_compressor.h"
#include "lzs_calls.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {
namespace {

constexpr int kLevels = 3;

// A compressor whose area can be looked into.
struct Compressor {
  explicit Compressor(int level, uint32_t pieceSize = 16384)
      : stream(pieceSize, LzsKeepHistory, 0) {
    if (level == 0) stream.SetFastCompression();
    if (level == 1) stream.SetMediumCompression();
    if (level == 2) stream.SetMaximumCompression();
    Reset();
  }
  void Reset() { area = static_cast<lzs::CompressionArea*>(stream.ResetCompressionHistory()); }
  Bytes Unit(const Bytes& source) {
    stream.CompressBuffer(source.data(), static_cast<uint32_t>(source.size()), nullptr, 0);
    return {stream.GetResult(), stream.GetResult() + stream.GetCompressedSize()};
  }
  bool GoesOnLike(const Compressor& other) const {
    return stream.State().GoesOnLike(other.stream.State());
  }
  // Gives the small state to `change`, which may alter it.
  template <typename Change>
  void Alter(Change change) {
    lzs::CompressionState state{};
    std::memcpy(&state, area->state, sizeof state);
    change(state);
    std::memcpy(area->state, &state, sizeof state);
  }
  // As if what it compressed had come after so much else that positions are soon moved down.
  void MoveNearCeiling() {
    Alter([&](lzs::CompressionState& state) {
      const uint32_t shift = (uint32_t{1} << 31) - (state.position / 2048 + 1) * 2048;
      for (uint32_t hash = 0; hash < lzs::kHeadCount; ++hash)
        if (area->heads[hash] != 0) area->heads[hash] += shift;
      state.position += shift;
    });
  }

  StreamCompressor stream;
  lzs::CompressionArea* area = nullptr;
};

// Zeros, noise, few letters, pairs with the same hash, periods, copies, and an image.
Bytes DataOfKind(Random& random, uint32_t kind, size_t size) {
  static const Bytes image = [] {
    const std::string bytes = ReadFile(std::string(CAPSULE_TEST_DATA) + "/images/w_names.img");
    return Bytes(bytes.begin(), bytes.end());
  }();
  static constexpr uint32_t kColliding = 3 * lzs::kHashSize;
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) {
    const uint32_t pair = random.Below(30) * lzs::kHashSize + kColliding;
    if (kind == 1) bytes[i] = random.Byte();
    if (kind == 2) bytes[i] = random.Byte(3);
    if (kind == 3) bytes[i] = static_cast<unsigned char>(i % 2 == 0 ? pair >> 8 : pair);
    if (kind == 4) bytes[i] = random.Chance(900) ? random.Byte() : bytes[i < 7 ? 0 : i - 7];
    if (kind == 5)
      bytes[i] =
          i > 2100 && !random.Chance(4) ? bytes[i - 1 - random.Below(2100)] : random.Byte(40);
    if (kind == 6) bytes[i] = image[(i + kind * size) % image.size()];
  }
  return bytes;
}

TEST(CompressorState, CompressorsThatGoOnAlikeWriteTheSameUnits) {
  Random random(21);
  uint32_t alike = 0;
  uint32_t different = 0;
  for (int round = 0; round < 700; ++round) {
    SCOPED_TRACE(round);
    const int level = round % kLevels;
    Compressor first(level);
    Compressor later(level);
    // Other histories before, in the same area.
    for (Compressor* used : {&first, &later}) {
      if (!random.Chance(2)) continue;
      for (int i = 0; i < 3; ++i) used->Unit(DataOfKind(random, random.Below(7), 3000));
      used->Reset();
    }
    const uint32_t kind = random.Below(7);
    static constexpr uint32_t kSizes[] = {50, 500, 2047, 8192};
    const uint32_t size = kSizes[random.Below(4)];
    const uint32_t before = random.Below(6);
    const uint32_t warm = random.Below(before + 1);
    std::vector<Bytes> units;
    for (uint32_t i = 0; i < before + 4; ++i)
      units.push_back(DataOfKind(random, random.Chance(4) ? random.Below(7) : kind,
                                 random.Chance(8) ? 0 : 1 + random.Below(size)));
    for (uint32_t i = 0; i < before; ++i) {
      if (i + 1 == before && random.Chance(3)) first.MoveNearCeiling();
      first.Unit(units[i]);
      if (i >= before - warm) later.Unit(units[i]);
    }
    const bool goesOn = first.GoesOnLike(later);
    ASSERT_EQ(goesOn, later.GoesOnLike(first));
    Compressor copy(level);
    copy.stream.SetState(first.stream.State());
    ++(goesOn ? alike : different);
    for (uint32_t i = before; i < units.size(); ++i) {
      ASSERT_TRUE(copy.GoesOnLike(first));
      const Bytes expected = first.Unit(units[i]);
      ASSERT_EQ(copy.Unit(units[i]), expected);
      if (!goesOn) continue;
      ASSERT_EQ(later.Unit(units[i]), expected);
      ASSERT_TRUE(first.GoesOnLike(later));
    }
  }
  EXPECT_GT(alike, 200U);
  EXPECT_GT(different, 200U);
}

// Only of three letters at effort 7 they need not be.
TEST(CompressorState, FourUnitsBeforeTheSeamAreEnough) {
  Random random(22);
  for (uint32_t kind = 0; kind < 7; ++kind) {
    for (int level = 0; level < kLevels; ++level) {
      SCOPED_TRACE(testing::Message() << "kind " << kind << " level " << level);
      Compressor first(level);
      Compressor later(level);
      for (int i = 0; i < 8; ++i) {
        const Bytes unit = DataOfKind(random, kind, 8192);
        first.Unit(unit);
        if (i >= 4) later.Unit(unit);
      }
      EXPECT_TRUE(first.GoesOnLike(later) || (kind == 2 && level == 1));
    }
  }
}

// Each change must be seen if, and only if, a later unit could see it.
TEST(CompressorState, ChangedStatesAreToldApart) {
  Random random(23);
  for (int level = 0; level < kLevels; ++level) {
    Compressor first(level);
    Compressor changed(level);
    EXPECT_TRUE(first.GoesOnLike(changed));
    for (Compressor* each : {&first, &changed}) {
      Random same(24);
      each->Unit(DataOfKind(same, 2, 3000));
      EXPECT_FALSE(first.GoesOnLike(changed));
      each->Unit(DataOfKind(same, 5, 1500));
    }
    EXPECT_TRUE(first.GoesOnLike(changed));
    lzs::CompressionState state{};
    changed.Alter([&](const lzs::CompressionState& now) { state = now; });
    lzs::CompressionArea& area = *changed.area;
    // With other bytes in one place of the area, which afterwards is as before.
    const auto goesOnWith = [&](size_t at, auto value) {
      unsigned char* place = static_cast<unsigned char*>(static_cast<void*>(&area)) + at;
      auto before = value;
      std::memcpy(&before, place, sizeof value);
      std::memcpy(place, &value, sizeof value);
      const bool goesOn = first.GoesOnLike(changed);
      std::memcpy(place, &before, sizeof value);
      return goesOn;
    };
    ASSERT_GT(state.historyCount, lzs::kMaxOffset);
    for (uint32_t at = 0; at < state.historyCount; ++at)
      ASSERT_EQ(goesOnWith(offsetof(lzs::CompressionArea, buffer) + at,
                           static_cast<unsigned char>(area.buffer[at] ^ 1)),
                at < state.historyCount - lzs::kMaxOffset);
    uint32_t links = 0;
    for (uint32_t hash = 0; hash < lzs::kHashSize; ++hash) {
      const size_t head = offsetof(lzs::CompressionArea, heads) + sizeof(uint32_t) * hash;
      uint32_t distance = state.position - area.heads[hash];
      const bool isOut = distance > lzs::kMaxOffset;
      ASSERT_EQ(goesOnWith(head, 0U), isOut);
      ASSERT_EQ(goesOnWith(head, state.position - lzs::kMaxOffset - 1), isOut);
      ASSERT_FALSE(goesOnWith(head, state.position - (distance == 5 ? 6 : 5)));
      for (; distance <= lzs::kMaxOffset; ++links) {
        const uint32_t slot = (state.position - distance) % lzs::kChainSize;
        const uint32_t link = area.chain[slot];
        const bool leadsOut = distance + link > lzs::kMaxOffset;
        for (const uint32_t other : {link + 1, 0U, 1U, lzs::kOutOfReach}) {
          const bool isSame =
              leadsOut ? distance + (other & 0xFFFF) > lzs::kMaxOffset : other == link;
          ASSERT_EQ(goesOnWith(offsetof(lzs::CompressionArea, chain) + sizeof(uint16_t) * slot,
                               static_cast<uint16_t>(other)),
                    isSame)
              << distance << ": " << link << " " << other;
        }
        distance += link;
      }
    }
    EXPECT_GT(links, 500U);
    changed.Alter([](lzs::CompressionState& now) { now.bitCount = 3; });
    EXPECT_FALSE(first.GoesOnLike(changed));
    area.signature = 0;
    EXPECT_FALSE(changed.GoesOnLike(changed));
  }
}

}  // namespace
}  // namespace capsule::test
