// The damages of the campaign: which bytes become what.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/damage_seed.h"

namespace capsule::fuzz {

// `bytes`: the damaged image. [from, to): what is damaged, in the whole image.
struct DamageCase {
  const std::string& bytes;
  size_t from = 0;
  size_t to = 0;
  bool isHeader = false;
};

using TakeDamage = std::function<void(const DamageCase&)>;

// Every length near a structure and in the index, and as many others as `most` allows.
void VisitTruncations(const test::DamageSeed& seed, size_t most, const TakeDamage& take);

// Every byte of the header, of the index, and of the headers of records and the entries behind
// them, set to 0x00, 0x01, 0x7F, 0x80 and 0xFF.
void VisitBytes(const test::DamageSeed& seed, const TakeDamage& take);

// `count` times: one to eight bytes anywhere behind the header, or one in a hundred of a stretch of
// up to 8192 bytes, by a generator of this seed.
void VisitRandom(const test::DamageSeed& seed, size_t count, uint32_t generator,
                 const TakeDamage& take);

// `count` times: one bit anywhere, or what VisitRandom does, in turn.
void VisitMutants(const test::DamageSeed& seed, size_t count, uint32_t generator,
                  const TakeDamage& take);

}  // namespace capsule::fuzz
