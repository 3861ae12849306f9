#include "bench/worst_cases.h"

#include <algorithm>
#include <initializer_list>
#include <random>

#include "capsule/compression/triple_search.h"

namespace capsule::bench {
namespace {

// mt19937 gives a wider type than its 32 bits.
class Random {
 public:
  explicit Random(uint32_t seed) : m_engine(seed) {}
  uint32_t operator()() { return static_cast<uint32_t>(m_engine()); }

 private:
  std::mt19937 m_engine;
};

constexpr uint32_t kInputSize = 4 << 20;
constexpr uint32_t kStreamPlain = 4 << 20;
constexpr uint32_t kHashSize = 2003;

// Pairs of bytes that all have the same hash, in any order: long walks past candidates that match
// nothing.
std::vector<unsigned char> Collisions() {
  std::vector<unsigned char> bytes;
  Random random(9);
  while (bytes.size() < kInputSize) {
    const uint32_t pair = 5 + random() % 32 * kHashSize;
    bytes.push_back(static_cast<unsigned char>(pair >> 8));
    bytes.push_back(static_cast<unsigned char>(pair));
  }
  return bytes;
}

// Two bytes and a third that takes all values before one comes again: where the two are searched,
// hundreds of candidates have them and not the third.
std::vector<unsigned char> ThirdBytes() {
  std::vector<unsigned char> bytes;
  Random random(10);
  std::vector<unsigned char> third(256);
  for (uint32_t i = 0; i < 256; ++i) third[i] = static_cast<unsigned char>(i);
  while (bytes.size() < kInputSize) {
    for (uint32_t i = 255; i > 0; --i) std::swap(third[i], third[random() % (i + 1)]);
    for (const unsigned char value : third) {
      bytes.push_back(0);
      bytes.push_back(1);
      bytes.push_back(value);
    }
  }
  return bytes;
}

// The same bytes again and again, each time with another one behind them.
std::vector<unsigned char> SameThenAny(uint32_t seed, std::initializer_list<unsigned char> same) {
  std::vector<unsigned char> bytes;
  Random random(seed);
  while (bytes.size() < kInputSize) {
    bytes.insert(bytes.end(), same);
    bytes.push_back(static_cast<unsigned char>(random()));
  }
  return bytes;
}

// Candidates match two bytes.
std::vector<unsigned char> TwoOfThree() { return SameThenAny(1, {'a', 'b'}); }

// Each candidate is measured, none is better.
std::vector<unsigned char> FourOfFive() { return SameThenAny(2, {'a', 'b', 'c', 'd'}); }

// Triples that all have the same hash, in any order: walks past candidates of the second index that
// match nothing, or only two bytes.
std::vector<unsigned char> SharedTriples() {
  std::vector<uint32_t> triples;
  for (uint32_t triple = 0; triple < 1 << 24 && triples.size() < 600; ++triple)
    if (lzs::TripleHash(triple) == 7) triples.push_back(triple);
  std::vector<unsigned char> bytes;
  Random random(11);
  while (bytes.size() < kInputSize) {
    const uint32_t triple = triples[random() % triples.size()];
    for (unsigned shift = 0; shift < 24; shift += 8)
      bytes.push_back(static_cast<unsigned char>(triple >> shift));
  }
  return bytes;
}

// Two letters in any order: long chains, and matches just short of what would end the search.
std::vector<unsigned char> TwoLetters() {
  std::vector<unsigned char> bytes(kInputSize);
  Random random(3);
  for (unsigned char& byte : bytes) byte = random() % 2 != 0 ? 'a' : 'b';
  return bytes;
}

// Matches of two bytes only: the most tokens a byte that are not literals.
std::vector<unsigned char> ShortMatches() {
  std::vector<unsigned char> bytes;
  Random random(4);
  while (bytes.size() < kInputSize) {
    const uint32_t pair = random() % 600;
    bytes.push_back(static_cast<unsigned char>(pair >> 4));
    bytes.push_back(static_cast<unsigned char>(pair * 7));
  }
  return bytes;
}

class StreamWriter {
 public:
  void Put(uint32_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) {
      m_held = m_held * 2 + (value >> i & 1);
      if (++m_count % 8 == 0) m_bytes.push_back(static_cast<unsigned char>(m_held));
    }
  }
  WorstUnit Finish(uint32_t plain) {
    Put(0x180, 9);
    while (m_count % 8 != 0) Put(0, 1);
    return {m_bytes, plain};
  }

 private:
  std::vector<unsigned char> m_bytes;
  uint32_t m_held = 0;
  uint64_t m_count = 0;
};

// Literals, so that every offset leads somewhere; how many.
uint32_t Begin(StreamWriter& writer, Random& random) {
  constexpr uint32_t kCount = 2048;
  for (uint32_t i = 0; i < kCount; ++i) writer.Put(random() & 255, 9);
  return kCount;
}

WorstUnit ShortCopies() {
  StreamWriter writer;
  Random random(5);
  uint32_t plain = Begin(writer, random);
  for (; plain < kStreamPlain; plain += 2) {
    writer.Put(0x1000 | (1 + random() % 2047), 13);
    writer.Put(0, 2);
  }
  return writer.Finish(plain);
}

// Literals and matches of any length and offset in no order: nothing can be predicted.
WorstUnit Unpredictable() {
  StreamWriter writer;
  Random random(6);
  uint32_t plain = Begin(writer, random);
  while (plain < kStreamPlain) {
    if (random() % 2 != 0) {
      writer.Put(random() & 255, 9);
      ++plain;
      continue;
    }
    const bool isShort = random() % 2 != 0;
    writer.Put(isShort ? 0x180 | (1 + random() % 127) : 0x1000 | (1 + random() % 2047),
               isShort ? 9 : 13);
    const uint32_t code = random() % 7;
    writer.Put(code < 3 ? code : 9 + code, code < 3 ? 2 : 4);
    plain += code + 2;
    if (code == 6) {
      const uint32_t group = random() % 15;
      writer.Put(group, 4);
      plain += group;
    }
  }
  return writer.Finish(plain);
}

WorstUnit NarrowCopies() {
  StreamWriter writer;
  Random random(7);
  uint32_t plain = Begin(writer, random);
  while (plain < kStreamPlain) {
    writer.Put(0x180 | (1 + random() % 9), 9);
    const uint32_t length = 8 + random() % 15;
    writer.Put(15, 4);
    writer.Put(length - 8, 4);
    plain += length;
  }
  return writer.Finish(plain);
}

// Lengths of exactly 8: every match has a group that adds nothing.
WorstUnit EmptyGroups() {
  StreamWriter writer;
  Random random(8);
  uint32_t plain = Begin(writer, random);
  for (; plain < kStreamPlain; plain += 8) {
    writer.Put(0x1000 | (1 + random() % 2047), 13);
    writer.Put(0xF0, 8);
  }
  return writer.Finish(plain);
}

struct Walk {
  const std::vector<unsigned char>& plain;
  std::vector<int64_t> previous;
  std::vector<int64_t> heads = std::vector<int64_t>(kHashSize, -1);
  uint64_t steps = 0;

  void Enter(size_t at) {
    const uint32_t hash = (plain[at] * 256U + plain[at + 1]) % kHashSize;
    previous[at] = heads[hash];
    heads[hash] = static_cast<int64_t>(at);
  }
  bool Next(size_t at, int64_t& candidate) {
    candidate = previous[static_cast<size_t>(candidate)];
    if (candidate < 0 || at - static_cast<size_t>(candidate) > 2047) return false;
    ++steps;
    return true;
  }
  size_t Equal(size_t at, int64_t candidate, size_t limit) const {
    size_t n = 0;
    while (n < limit && plain[at + n] == plain[static_cast<size_t>(candidate) + n]) ++n;
    return n;
  }
  size_t Search(size_t at, size_t limit, uint32_t effort, int64_t& best) {
    auto candidate = static_cast<int64_t>(at);
    if (!Next(at, candidate)) return 0;
    for (uint32_t phase = 2; phase <= 3; ++phase) {
      uint32_t left = effort;
      while (Equal(at, candidate, phase) < phase)
        if (left-- == 0 || !Next(at, candidate)) return phase == 2 ? 0 : 2;
      best = candidate;
    }
    size_t length = 3;
    for (int counter = static_cast<int>(effort); length < 57;) {
      const size_t equal = Equal(at, candidate, limit);
      counter -= equal >= 4 ? 2 : 1;
      if (equal > length) {
        length = equal;
        best = candidate;
      }
      if (counter <= 0 || !Next(at, candidate)) break;
    }
    return length;
  }
};

}  // namespace

double ChainStepsPerByte(const std::vector<unsigned char>& plain, uint32_t effort) {
  Walk walk{plain, std::vector<int64_t>(plain.size(), -1)};
  for (size_t at = 0; at + 5 <= plain.size();) {
    walk.Enter(at);
    int64_t best = 0;
    const size_t length = walk.Search(at, plain.size() - at, effort, best);
    const size_t end = at + std::max<size_t>(length, 1);
    const bool bodies = effort == 255 && at - static_cast<size_t>(best) >= 2;
    if (effort != 0)
      for (size_t i = bodies ? at + 1 : end - 1; i > at && i < end && i + 1 < plain.size(); ++i)
        walk.Enter(i);
    at = end;
  }
  return static_cast<double>(walk.steps) / static_cast<double>(plain.size());
}

const std::vector<WorstInput>& WorstInputs() {
  static const std::vector<WorstInput> inputs = {
      {"collisions", Collisions},       {"two of three", TwoOfThree},
      {"four of five", FourOfFive},     {"two letters", TwoLetters},
      {"short matches", ShortMatches},  {"third bytes", ThirdBytes},
      {"shared triples", SharedTriples}};
  return inputs;
}

const std::vector<WorstStream>& WorstStreams() {
  static const std::vector<WorstStream> streams = {{"copies of 2", ShortCopies},
                                                   {"unpredictable", Unpredictable},
                                                   {"narrow copies", NarrowCopies},
                                                   {"empty groups", EmptyGroups}};
  return streams;
}

}  // namespace capsule::bench
