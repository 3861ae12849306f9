// Check values of an image: XXH3 (64 bits) over regions, XXH32 over the index.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace capsule::host {

// XXH3 of bytes that arrive in pieces.
class RunningChecksum {
 public:
  RunningChecksum();
  ~RunningChecksum();
  RunningChecksum(const RunningChecksum&) = delete;
  RunningChecksum& operator=(const RunningChecksum&) = delete;

  void Reset();
  void Update(std::span<const unsigned char> bytes);
  uint64_t Value() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

// XXH32 with seed 0 of bytes that arrive in pieces.
class IndexChecksum {
 public:
  IndexChecksum();
  ~IndexChecksum();
  IndexChecksum(const IndexChecksum&) = delete;
  IndexChecksum& operator=(const IndexChecksum&) = delete;

  void Update(std::span<const unsigned char> bytes);
  uint32_t Value() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

// 16 hex digits.
std::string ChecksumDigits(uint64_t value);

// The name of an index record that carries a region's check value: "xxh3=" and 16 hex digits.
std::string ChecksumName(uint64_t value);

// The value in such a name; none when it is another.
std::optional<uint64_t> ChecksumOfName(std::string_view name);

}  // namespace capsule::host
