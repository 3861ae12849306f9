#include "capsule/host/file/checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <array>
#include <charconv>
#include <cstdio>

namespace capsule::host {
namespace {

const std::string kNameStart = "xxh3=";

}  // namespace

struct RunningChecksum::State {
  XXH3_state_t xxh;
};

RunningChecksum::RunningChecksum() : m_pState(std::make_unique<State>()) { Reset(); }
RunningChecksum::~RunningChecksum() = default;

void RunningChecksum::Reset() { XXH3_64bits_reset(&m_pState->xxh); }

void RunningChecksum::Update(std::span<const unsigned char> bytes) {
  XXH3_64bits_update(&m_pState->xxh, bytes.data(), bytes.size());
}

uint64_t RunningChecksum::Value() const { return XXH3_64bits_digest(&m_pState->xxh); }

struct IndexChecksum::State {
  XXH32_state_t xxh;
};

IndexChecksum::IndexChecksum() : m_pState(std::make_unique<State>()) {
  XXH32_reset(&m_pState->xxh, 0);
}
IndexChecksum::~IndexChecksum() = default;

void IndexChecksum::Update(std::span<const unsigned char> bytes) {
  XXH32_update(&m_pState->xxh, bytes.data(), bytes.size());
}

uint32_t IndexChecksum::Value() const { return XXH32_digest(&m_pState->xxh); }

std::string ChecksumDigits(uint64_t value) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(value));
  return text.data();
}

std::string ChecksumName(uint64_t value) { return kNameStart + ChecksumDigits(value); }

std::optional<uint64_t> ChecksumOfName(std::string_view name) {
  if (!name.starts_with(kNameStart)) return std::nullopt;
  const char* end = name.data() + name.size();
  uint64_t value = 0;
  const auto [stop, error] = std::from_chars(name.data() + kNameStart.size(), end, value, 16);
  if (error != std::errc() || stop != end || ChecksumName(value) != name) return std::nullopt;
  return value;
}

}  // namespace capsule::host
