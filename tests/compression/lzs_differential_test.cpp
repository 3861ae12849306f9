// The codec against the slow model, over random calls. CAPSULE_LZS_CASES sets the number of cases
// and CAPSULE_LZS_SEED the first seed; a failure names the seed that repeats it alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "capsule/compression/processor.h"
#include "lzs_calls.h"

namespace capsule::test {
namespace {

uint64_t FromEnvironment(const char* name, uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

uint32_t RandomSize(Random& random) {
  static constexpr uint32_t kLimits[] = {8, 80, 40, 9000, 900, 900};
  const uint32_t kind = random.Below(6);
  return random.Below(kLimits[kind]) + (kind == 2 ? 2030 : 0);
}

// Bytes with matches of all kinds: few letters, runs, periods, copies from far back, noise.
Bytes RandomBytes(Random& random, uint32_t size) {
  static constexpr uint32_t kLetters[] = {1, 2, 3, 5, 20, 256};
  const uint32_t letters = kLetters[random.Below(6)];
  const bool hasCopies = !random.Chance(4);
  Bytes bytes;
  while (bytes.size() < size) {
    uint32_t count = 1 + random.Below(random.Chance(10) ? 300 : 12);
    if (hasCopies && !bytes.empty() && random.Chance(2)) {
      const auto reach = static_cast<uint32_t>(std::min<size_t>(bytes.size(), 2100));
      const uint32_t offset = 1 + random.Below(random.Chance(3) ? std::min(reach, 4U) : reach);
      while (count-- > 0) bytes.push_back(bytes[bytes.size() - offset]);
    } else {
      const auto base = static_cast<unsigned char>(random.Chance(2) ? 'a' : 0xFE);
      while (count-- > 0) bytes.push_back(static_cast<unsigned char>(base + random.Below(letters)));
    }
  }
  bytes.resize(size);
  return bytes;
}

// One history, a series of calls, and what the handles must show after each of them.
class Session {
 public:
  Session(Random& random, MovingArea& area, LzsCodec codec)
      : m_random(random), m_area(area), m_codec(codec) {}

  // What the next call will be given; a side that is not finished keeps what it has.
  bool NeedsSource() const { return m_sourceDone; }
  bool NeedsRoom() const { return m_roomDone; }
  void OfferSource(const Bytes& bytes) { m_source = Buffer(bytes); }
  void OfferRoom(uint32_t room) {
    m_dest = Buffer(room);
    m_written = 0;
  }

  // Makes the call and compares it with what the model says of it.
  void Call(uint16_t flags, uint16_t effort, const ModelResult& expected) {
    if (m_random.Chance(3)) m_area.Move(m_random);
    const unsigned char* source = m_source.Data();
    uint32_t sourceCount = m_source.Size();
    unsigned char* dest = m_dest.Data();
    uint32_t room = m_dest.Size();
    if (!m_sourceDone && m_random.Chance(2)) sourceCount = m_random.Below(50);
    if (!m_roomDone && m_random.Chance(2)) room = m_random.Below(50);
    const uint32_t sourceOffered = sourceCount;
    const uint32_t roomOffered = room;
    const uint16_t word = m_codec(&source, &dest, &sourceCount, &room, m_area.Get(), flags, effort);
    ASSERT_EQ(word, expected.word)
        << "flags " << flags << " source " << m_source.Size() << " room " << m_dest.Size();
    if (word == 0) {
      ASSERT_EQ(source, m_source.Data());
      ASSERT_EQ(dest, m_dest.Data());
      return;
    }
    ASSERT_LE(m_written + expected.out.size(), m_dest.Size());
    ASSERT_TRUE(std::equal(expected.out.begin(), expected.out.end(), m_dest.Data() + m_written));
    m_written += static_cast<uint32_t>(expected.out.size());

    m_sourceDone = (word & (LzsInputUsedUp | LzsUnitComplete)) != 0;
    const uint32_t consumed = m_sourceDone ? expected.consumed : 0;
    ASSERT_EQ(source, m_source.Data() + consumed);
    ASSERT_EQ(sourceCount, m_sourceDone ? m_source.Size() - consumed : sourceOffered);
    m_roomDone = expected.isIdle || (word & (LzsOutputFull | LzsUnitComplete)) != 0;
    ASSERT_EQ(dest, m_dest.Data() + (m_roomDone ? m_written : 0));
    ASSERT_EQ(room, m_roomDone ? m_dest.Size() - m_written : roomOffered);
    ASSERT_TRUE(room == 0 || (word & (LzsOutputFull | LzsUnitComplete)) != LzsOutputFull);
  }

 private:
  Random& m_random;
  MovingArea& m_area;
  LzsCodec m_codec;
  Buffer m_source;
  Buffer m_dest;
  uint32_t m_written = 0;
  bool m_sourceDone = true;
  bool m_roomDone = true;
};

// Complete units, joined, and what they are made of.
struct Units {
  Bytes coded;
  Bytes plain;
  size_t count = 0;
};

// Compresses random input in random calls; the units that come of it.
Units CompressCase(Random& random) {
  static constexpr uint16_t kEfforts[] = {0, 0, 1, 2, 7, 7, 30, 255, 0x1FF};
  MovingArea area(LzsSizeOfCompressionHistory(), LzsInitCompressionHistory);
  ModelCompressor model;
  Session session(random, area, LzsCompress);
  Units units;
  Units complete;
  Bytes source;
  bool isLast = false;
  const uint32_t calls = 1 + random.Below(8);
  const bool hasSmallRooms = random.Chance(2);
  const uint16_t keeps = random.Chance(3) ? 0 : LzsKeepHistory;
  const uint16_t closes = random.Chance(4) ? LzsCloseOnFullOutput : 0;
  auto index = static_cast<uint16_t>(random.Below(4) * LzsIndexMatchEnds);
  uint16_t effort = kEfforts[random.Below(9)];
  Bytes pieces = RandomBytes(random, RandomSize(random) * (1 + random.Below(3)));
  uint32_t round = 0;
  for (uint32_t made = 0; made < 200 && (round < calls || !session.NeedsSource()); ++made) {
    if (session.NeedsSource() && source.empty()) {
      ++round;
      const auto left = static_cast<uint32_t>(pieces.size());
      const uint32_t size = std::min(left, round == calls ? left : RandomSize(random));
      source.assign(pieces.begin(), pieces.begin() + size);
      pieces.erase(pieces.begin(), pieces.begin() + size);
      isLast = round == calls || random.Chance(2);
      if (random.Chance(4)) {
        index = static_cast<uint16_t>(random.Below(4) * LzsIndexMatchEnds);
        effort = kEfforts[random.Below(9)];
      }
    }
    if (session.NeedsSource()) session.OfferSource(source);
    uint32_t room = 0;
    if (session.NeedsRoom()) {
      room = hasSmallRooms      ? random.Below(random.Chance(3) ? 200 : 40)
             : random.Chance(3) ? 1000 + random.Below(2000)
                                : 30000;
      session.OfferRoom(room);
    }
    auto flags = static_cast<uint16_t>(index | keeps | closes | (isLast ? LzsEndOfInput : 0));
    // A change of mind within a source, or a flag that does not exist; how matches are indexed must
    // not change there, since it is open how far the search has come.
    static constexpr uint16_t kChanges[] = {LzsEndOfInput, LzsCloseOnFullOutput, LzsKeepHistory,
                                            32};
    if (random.Chance(40)) flags ^= kChanges[random.Below(4)];
    const ModelResult expected = model.Call(source, room, flags, effort);
    session.Call(flags, effort, expected);
    if (testing::Test::HasFatalFailure()) return {};
    units.coded.insert(units.coded.end(), expected.out.begin(), expected.out.end());
    if (session.NeedsSource() && expected.word != 0) {
      units.plain.insert(units.plain.end(), source.begin(), source.begin() + expected.consumed);
      source.erase(source.begin(), source.begin() + expected.consumed);
    }
    if ((expected.word & LzsUnitComplete) == 0) continue;
    ++units.count;
    complete = units;
  }
  return complete;
}

// Decodes joined units, or what looks like them, in random calls.
struct Decoding {
  Random& random;
  const Bytes& all;
  uint32_t sourceLimit;
  uint32_t roomLimit;
  MovingArea area{LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory};
  ModelDecompressor model{};
  Session session{random, area, DecompressAsCodec};
  Bytes source{};
  size_t next = 0;

  bool IsAtEnd() const { return next == all.size() && session.NeedsSource(); }

  void OfferSource() {
    if (!session.NeedsSource()) return;
    const size_t size = std::min<size_t>(random.Below(sourceLimit), all.size() - next);
    const auto from = all.begin() + static_cast<long>(next);
    source.assign(from, from + static_cast<long>(size));
    session.OfferSource(source);
  }

  ModelResult Call(uint16_t flags) {
    uint32_t room = 0;
    if (session.NeedsRoom()) {
      room = (flags & LzsStoredBlock) != 0 ? static_cast<uint32_t>(source.size())
                                           : random.Below(roomLimit);
      session.OfferRoom(room);
    }
    const ModelResult expected = model.Call(source, room, flags);
    session.Call(flags, 0, expected);
    if (session.NeedsSource() && expected.word != 0) next += expected.consumed;
    return expected;
  }
};

// The output must be what went in.
void DecodeCase(Random& random, const Units& units) {
  Decoding decoding{random, units.coded, random.Chance(2) ? 9U : 100000U,
                    random.Chance(2) ? 40U : 30000U};
  Bytes out;
  for (size_t done = 0; done < units.count;) {
    decoding.OfferSource();
    const ModelResult expected = decoding.Call(LzsKeepHistory);
    if (testing::Test::HasFatalFailure()) return;
    ASSERT_NE(expected.word, 0);
    out.insert(out.end(), expected.out.begin(), expected.out.end());
    if ((expected.word & LzsUnitComplete) != 0) ++done;
  }
  ASSERT_EQ(out, units.plain);
}

// A stream that no compressor writes: both forms of offset, any length, now and then corrupt.
Bytes RandomStream(Random& random) {
  std::vector<bool> bits;
  const uint32_t tokens = random.Below(random.Chance(4) ? 2000 : 60);
  const uint32_t literalOdds = 2 + random.Below(4);
  const uint32_t corruptOdds = random.Chance(3) ? 100 : 1000000;
  uint64_t written = 0;
  for (uint32_t i = 0; i < tokens; ++i) {
    if (written == 0 || random.Chance(literalOdds)) {
      AppendBits(bits, random.Below(256), 9);
      ++written;
      continue;
    }
    const bool isShort = random.Chance(2);
    const auto reach = static_cast<uint32_t>(std::min<uint64_t>(written, isShort ? 127 : 2047));
    uint32_t offset = 1 + random.Below(random.Chance(3) ? std::min(reach, 9U) : reach);
    if (random.Chance(corruptOdds)) offset = random.Below(isShort ? 128 : 2048);
    AppendBits(bits, isShort ? 3 : 2, 2);
    AppendBits(bits, offset, isShort ? 7 : 11);
    const uint32_t code = random.Below(7);
    written += code + 2;
    AppendBits(bits, code < 3 ? code : 9 + code, code < 3 ? 2 : 4);
    if (code < 6) continue;
    for (uint32_t groups = random.Below(random.Chance(20) ? 300 : 5); groups > 0; --groups) {
      AppendBits(bits, 15, 4);
      written += 15;
    }
    AppendBits(bits, random.Below(15), 4);
  }
  AppendBits(bits, 0x180, random.Chance(8) ? 5 : 9);
  while (bits.size() % 8 != 0) bits.push_back(false);
  Bytes bytes(bits.size() / 8);
  for (size_t i = 0; i < bits.size(); ++i)
    bytes[i / 8] = static_cast<unsigned char>(bytes[i / 8] << 1 | (bits[i] ? 1 : 0));
  if (random.Chance(6) && !bytes.empty())
    bytes[random.Below(static_cast<uint32_t>(bytes.size()))] ^=
        static_cast<unsigned char>(1 << random.Below(8));
  return bytes;
}

void StreamCase(Random& random) {
  Bytes all;
  while (all.size() < 30 || random.Chance(2)) {
    const Bytes stream = RandomStream(random);
    all.insert(all.end(), stream.begin(), stream.end());
  }
  const uint16_t keeps = random.Chance(3) ? 0 : LzsKeepHistory;
  Decoding decoding{random, all, random.Chance(2) ? 9U : 20000U, random.Chance(2) ? 60U : 20000U};
  for (int made = 0; made < 400 && !decoding.IsAtEnd(); ++made) {
    decoding.OfferSource();
    uint16_t flags = keeps;
    if (random.Chance(10)) flags |= static_cast<uint16_t>(1 << random.Below(4));
    const bool isCorrupt = decoding.Call(flags).word == 0 && (flags & ~LzsKeepHistory) == 0;
    if (isCorrupt || testing::Test::HasFatalFailure()) return;
  }
}

TEST(LzsDifferential, CompressorAndDecompressorDoWhatTheModelsDo) {
  const uint64_t first = FromEnvironment("CAPSULE_LZS_SEED", 1);
  const uint64_t cases = FromEnvironment("CAPSULE_LZS_CASES", 4000);
  for (uint64_t seed = first; seed < first + cases; ++seed) {
    SCOPED_TRACE("CAPSULE_LZS_CASES=1 CAPSULE_LZS_SEED=" + std::to_string(seed));
    Random random(seed);
    lzs::UsePortableCode(seed % 3 == 0);
    const Units units = CompressCase(random);
    if (!HasFatalFailure()) DecodeCase(random, units);
    if (!HasFatalFailure()) StreamCase(random);
    if (HasFatalFailure()) break;
  }
  lzs::UsePortableCode(false);
}

}  // namespace
}  // namespace capsule::test
