#include "fuzz/damage_cases.h"

#include <algorithm>
#include <random>
#include <set>

#include "capsule/container/header_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::fuzz {
namespace {

using host::SectionItem;

// Where the headers of records begin, and how many bytes count as theirs.
std::set<size_t> HeaderBytes(const test::DamageSeed& seed) {
  std::set<size_t> bytes;
  const auto add = [&](size_t from, size_t count) {
    for (size_t i = 0; i < count && from + i < seed.IndexOffset(); ++i) bytes.insert(from + i);
  };
  for (const SectionItem& item : seed.Items()) {
    const auto at = static_cast<size_t>(item.offset);
    const auto end = static_cast<size_t>(item.offset + item.length);
    const auto data = static_cast<size_t>(item.dataOffset);
    if (item.kind == SectionItem::Kind::Section || item.isNtfs) {
      add(at, 64);
    } else if (item.kind == SectionItem::Kind::Trailer) {
      add(at, kMiniHeaderSize);
    } else {
      add(at, (data != 0 ? data : end) - at);
    }
    if (data != 0 && data != end) add(data, item.isNtfs ? 46 : kMiniHeaderSize);
  }
  return bytes;
}

}  // namespace

void VisitTruncations(const test::DamageSeed& seed, size_t most, const TakeDamage& take) {
  constexpr size_t kNear = 16;
  const size_t size = seed.Bytes().size();
  std::set<size_t> lengths;
  const auto add = [&](size_t middle) {
    for (size_t n = middle - std::min(middle, kNear); n <= std::min(middle + kNear, size - 1);
         ++n) {
      lengths.insert(n);
    }
  };
  for (const SectionItem& item : seed.Items()) {
    add(static_cast<size_t>(item.offset));
    add(static_cast<size_t>(item.offset + item.length));
    if (item.dataOffset != 0) add(static_cast<size_t>(item.dataOffset));
  }
  for (size_t n = seed.IndexOffset(); n < size; ++n) lengths.insert(n);
  add(kHeaderSize);
  add(0);
  const size_t step =
      std::max<size_t>(1, size / std::max<size_t>(1, most - std::min(most, lengths.size())));
  for (size_t n = 0; n < size; n += step) lengths.insert(n);
  for (const size_t length : lengths) {
    const std::string bytes = seed.Bytes().substr(0, length);
    take({bytes, length, size, length < kHeaderSize});
  }
}

void VisitBytes(const test::DamageSeed& seed, const TakeDamage& take) {
  std::set<size_t> places = HeaderBytes(seed);
  for (size_t at = 0; at < kHeaderSize; ++at) places.insert(at);
  for (size_t at = seed.IndexOffset(); at < seed.Bytes().size(); ++at) places.insert(at);
  std::string bytes = seed.Bytes();
  for (const size_t at : places) {
    for (const unsigned value : {0x00U, 0x01U, 0x7FU, 0x80U, 0xFFU}) {
      bytes[at] = static_cast<char>(value);
      if (bytes[at] != seed.Bytes()[at]) take({bytes, at, at + 1, at < kHeaderSize});
    }
    bytes[at] = seed.Bytes()[at];
  }
}

void VisitRandom(const test::DamageSeed& seed, size_t count, uint32_t generator,
                 const TakeDamage& take) {
  std::mt19937 random(generator);
  const auto below = [&](size_t n) { return static_cast<size_t>(random()) % n; };
  const size_t size = seed.Bytes().size();
  for (size_t i = 0; i < count; ++i) {
    std::string bytes = seed.Bytes();
    const size_t from = kHeaderSize + below(size - kHeaderSize);
    const bool isStretch = below(2) == 0;
    const size_t to = std::min(size, from + (isStretch ? 1 + below(8192) : 1 + below(64)));
    const size_t damages = isStretch ? (to - from) / 100 + 1 : 1 + below(8);
    for (size_t n = 0; n < damages; ++n) {
      bytes[from + below(to - from)] = static_cast<char>(random());
    }
    take({bytes, from, to, false});
  }
}

void VisitMutants(const test::DamageSeed& seed, size_t count, uint32_t generator,
                  const TakeDamage& take) {
  std::mt19937 random(generator);
  std::string bytes = seed.Bytes();
  for (size_t i = 0; i < count - count / 2; ++i) {
    const size_t at = static_cast<size_t>(random()) % bytes.size();
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
    take({bytes, at, at + 1, at < kHeaderSize});
    bytes[at] = seed.Bytes()[at];
  }
  VisitRandom(seed, count / 2, generator, take);
}

}  // namespace capsule::fuzz
