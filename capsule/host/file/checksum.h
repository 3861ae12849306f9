// Check values of an image: XXH3 (64 bits) over regions, XXH32 over the index.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace capsule::host {

// XXH3 of bytes that arrive in pieces.
class RunningChecksum {
 public:
  RunningChecksum();
  ~RunningChecksum();
  RunningChecksum(const RunningChecksum& other);
  RunningChecksum& operator=(const RunningChecksum& other);

  void Reset();
  void Update(std::span<const unsigned char> bytes);
  uint64_t Value() const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
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
  std::unique_ptr<State> m_state;
};

}  // namespace capsule::host
