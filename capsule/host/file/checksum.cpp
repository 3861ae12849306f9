#include "capsule/host/file/checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace capsule::host {

struct RunningChecksum::State {
  XXH3_state_t xxh;
};

RunningChecksum::RunningChecksum() : m_state(std::make_unique<State>()) { Reset(); }
RunningChecksum::~RunningChecksum() = default;

RunningChecksum::RunningChecksum(const RunningChecksum& other)
    : m_state(std::make_unique<State>(*other.m_state)) {}

RunningChecksum& RunningChecksum::operator=(const RunningChecksum& other) {
  *m_state = *other.m_state;
  return *this;
}

void RunningChecksum::Reset() { XXH3_64bits_reset(&m_state->xxh); }

void RunningChecksum::Update(std::span<const unsigned char> bytes) {
  XXH3_64bits_update(&m_state->xxh, bytes.data(), bytes.size());
}

uint64_t RunningChecksum::Value() const { return XXH3_64bits_digest(&m_state->xxh); }

struct IndexChecksum::State {
  XXH32_state_t xxh;
};

IndexChecksum::IndexChecksum() : m_state(std::make_unique<State>()) {
  XXH32_reset(&m_state->xxh, 0);
}
IndexChecksum::~IndexChecksum() = default;

void IndexChecksum::Update(std::span<const unsigned char> bytes) {
  XXH32_update(&m_state->xxh, bytes.data(), bytes.size());
}

uint32_t IndexChecksum::Value() const { return XXH32_digest(&m_state->xxh); }

}  // namespace capsule::host
