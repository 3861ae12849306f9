// Two series of units side by side give what each gives alone, whatever is wrong with the other.
#include "capsule/compression/decompress_pair.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "capsule/compression/processor.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/host/records/unit_decoder.h"
#include "lzs_calls.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {
namespace {

// Noise, text, runs and copies, and an image.
Bytes PlainOf(Random& random, uint32_t kind, size_t size) {
  static const std::string image = ReadFile(std::string(CAPSULE_TEST_DATA) + "/images/w_names.img");
  Bytes bytes;
  size_t from = random.Below(static_cast<uint32_t>(image.size()));
  while (bytes.size() < size) {
    if (kind == 0) bytes.push_back(random.Byte());
    if (kind == 1) bytes.push_back(static_cast<unsigned char>(image[from++ % image.size()]));
    if (kind < 2) continue;
    const size_t reach = std::min<size_t>(bytes.size(), 2040);
    const size_t back = reach == 0 ? 0 : 1 + random.Below(static_cast<uint32_t>(reach));
    const size_t offset = random.Chance(3) ? std::min<size_t>(back, 9) : back;
    const uint32_t length = 1 + random.Below(random.Chance(9) ? 400 : 14);
    for (uint32_t i = 0; i < length; ++i)
      bytes.push_back(reach == 0 || kind + i == 2 ? random.Byte(60) : bytes[bytes.size() - offset]);
  }
  bytes.resize(size);
  return bytes;
}

// A buffer without a byte behind it, at any address.
struct Room {
  Room(Random& random, const Bytes& bytes)
      : shift(random.Below(8)), size(static_cast<uint32_t>(bytes.size())), memory(shift + size) {
    if (!bytes.empty()) std::memcpy(Data(), bytes.data(), bytes.size());
  }
  unsigned char* Data() { return memory.Data() + shift; }
  Bytes Content() { return {Data(), Data() + size}; }
  uint32_t shift;
  uint32_t size;
  Buffer memory;
};

struct Unit {
  Room coded;
  Room out;
};

// A few units of one history, now and then cut, changed, followed by something, of another size, or
// not units at all.
std::vector<Unit> RandomUnits(Random& random, bool isHostile) {
  StreamCompressor compressor(16384, LzsKeepHistory, 0);
  compressor.ResetCompressionHistory();
  if (random.Chance(2)) compressor.SetMaximumCompression();
  std::vector<Unit> units;
  const uint32_t kind = random.Below(4);
  for (uint32_t left = random.Below(6); left != 0; --left) {
    const uint32_t size = random.Chance(2) ? 8192 : random.Below(random.Chance(2) ? 100 : 9000);
    const Bytes plain = PlainOf(random, kind, size);
    compressor.CompressBuffer(plain.data(), size, nullptr, 0);
    Bytes coded(compressor.GetResult(), compressor.GetResult() + compressor.GetCompressedSize());
    coded.insert(coded.end(), random.Chance(4) ? random.Below(20) : 0, 0);
    uint32_t room = size;
    if (isHostile && random.Chance(3)) {
      const auto at = random.Below(static_cast<uint32_t>(coded.size()));
      const uint32_t damage = random.Below(6);
      if (damage == 0) coded.erase(coded.begin() + at, coded.end());
      if (damage == 1) coded[at] ^= static_cast<unsigned char>(1 << random.Below(8));
      if (damage == 2) coded.push_back(1);
      if (damage == 3) room += random.Below(40);
      if (damage == 4) room -= std::min(room, random.Below(40));
      if (damage == 5)
        for (unsigned char& byte : coded) byte = random.Byte();
    }
    units.push_back({Room(random, coded), Room(random, Bytes(room, 0x77))});
  }
  return units;
}

// One series: its units, its area at an odd address, and its calls.
struct Side {
  Side(Random& random, std::vector<Unit> made)
      : units(std::move(made)), area(random, Bytes(LzsSizeOfDecompressionHistory())) {
    LzsInitDecompressionHistory(area.Data());
    if (random.Chance(3)) Fill(random);
    start = area.Content();
  }
  // As behind other units.
  void Fill(Random& random) {
    Bytes history = PlainOf(random, 2, 1 + random.Below(3000));
    const unsigned char* in = history.data();
    unsigned char* to = history.data();
    auto count = static_cast<uint32_t>(history.size());
    uint32_t room = count;
    LzsDecompress(&in, &to, &count, &room, area.Data(), LzsStoredBlock | LzsKeepHistory);
  }
  std::vector<lzs::DecompressHandles> Calls() {
    std::copy(start.begin(), start.end(), area.Data());
    std::vector<lzs::DecompressHandles> calls;
    for (Unit& unit : units) {
      std::memset(unit.out.Data(), 0x77, unit.out.size);
      calls.push_back(
          {unit.coded.Data(), unit.out.Data(), unit.coded.size, unit.out.size, area.Data(), 0});
    }
    return calls;
  }
  // What can be seen behind the calls.
  std::vector<Bytes> Seen(const std::vector<lzs::DecompressHandles>& calls) {
    std::vector<Bytes> seen{area.Content()};
    for (size_t i = 0; i < units.size(); ++i) {
      const lzs::DecompressHandles& call = calls[i];
      // Behind what was decoded there may be anything.
      seen.push_back(units[i].out.Content());
      const bool isOutDone = (call.result & (LzsOutputFull | LzsUnitComplete)) != 0;
      seen.back().resize(isOutDone ? units[i].out.size - call.destinationCount : 0);
      const auto read = static_cast<unsigned char>(call.source - units[i].coded.Data());
      seen.push_back({static_cast<unsigned char>(call.result), read,
                      static_cast<unsigned char>(call.sourceCount),
                      static_cast<unsigned char>(call.destinationCount),
                      static_cast<unsigned char>(call.destination - units[i].out.Data())});
    }
    return seen;
  }

  std::vector<Unit> units;
  Room area;
  Bytes start;
};

bool IsComplete(const lzs::DecompressHandles& call) { return (call.result & LzsUnitComplete) != 0; }

std::vector<Bytes> DecodeAlone(Side& side) {
  std::vector<lzs::DecompressHandles> calls = side.Calls();
  for (lzs::DecompressHandles& call : calls) {
    call.result = LzsDecompress(&call.source, &call.destination, &call.sourceCount,
                                &call.destinationCount, call.history, LzsKeepHistory);
    if (!IsComplete(call)) break;
  }
  return side.Seen(calls);
}

TEST(DecompressPair, EachSeriesIsDecodedAsAlone) {
  Random random(31);
  uint32_t complete = 0;
  uint32_t broken = 0;
  for (int round = 0; round < 1500; ++round) {
    SCOPED_TRACE(round);
    lzs::UsePortableCode(round % 3 == 0);
    Side first(random, RandomUnits(random, random.Chance(2)));
    Side second(random, RandomUnits(random, random.Chance(2)));
    const std::vector<Bytes> firstAlone = DecodeAlone(first);
    const std::vector<Bytes> secondAlone = DecodeAlone(second);
    auto firstCalls = first.Calls();
    auto secondCalls = second.Calls();
    lzs::DecompressPair(firstCalls, secondCalls, IsComplete);
    ASSERT_EQ(first.Seen(firstCalls), firstAlone);
    ASSERT_EQ(second.Seen(secondCalls), secondAlone);
    for (const auto& call : firstCalls) ++(IsComplete(call) ? complete : broken);
  }
  lzs::UsePortableCode(false);
  EXPECT_GT(complete, 2000U);
  EXPECT_GT(broken, 300U);
}

TEST(DecompressPair, UnitDecodersSayTheSameOfEachUnit) {
  Random random(32);
  std::vector<std::string> faults;
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    std::vector<Unit> made[2] = {RandomUnits(random, true), RandomUnits(random, true)};
    host::UnitDecoder decoders[2];
    std::vector<host::UnitDecoder::Unit> units[2];
    std::vector<std::string> alone[2];
    Bytes histories[2];
    for (int side = 0; side < 2; ++side) {
      for (Unit& unit : made[side]) {
        units[side].push_back(
            {{unit.coded.Data(), unit.coded.size}, {unit.out.Data(), unit.out.size}});
        alone[side].push_back(
            decoders[side].Decode(units[side].back().payload, units[side].back().out));
      }
      const auto history = decoders[side].History();
      histories[side].assign(history.begin(), history.end());
      decoders[side].Reset();
    }
    host::UnitDecoder::DecodePair(decoders[0], units[0], decoders[1], units[1]);
    for (int side = 0; side < 2; ++side) {
      const auto history = decoders[side].History();
      ASSERT_EQ(Bytes(history.begin(), history.end()), histories[side]);
      for (size_t i = 0; i < units[side].size(); ++i) {
        ASSERT_EQ(units[side][i].fault, alone[side][i]);
        faults.push_back(alone[side][i].substr(0, 14));
      }
    }
  }
  std::sort(faults.begin(), faults.end());
  EXPECT_GE(std::unique(faults.begin(), faults.end()) - faults.begin(), 5);
}

}  // namespace
}  // namespace capsule::test
