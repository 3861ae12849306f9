#include "capsule/host/file/checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
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
  const std::string_view digits = name.substr(kNameStart.size());
  const bool areDigits = std::all_of(digits.begin(), digits.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  });
  if (digits.size() != 16 || !areDigits) return std::nullopt;
  uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  return value;
}

}  // namespace capsule::host
