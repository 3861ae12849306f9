// NameStore keeps very many names with next to no room beside their bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace capsule::host {

class NameStore {
 public:
  static constexpr size_t kBlock = size_t{1} << 16;  // no name lies in two of them

  // Keeps copies of two names, the second right behind the first, and returns the place of the
  // first. Together they have at most kBlock bytes.
  uint32_t Add(std::string_view name, std::string_view behind = {});

  // The `length` bytes at `place`. They stay where they are as long as the store.
  std::string_view Text(uint32_t place, size_t length) const {
    if (length == 0) return {};  // its place may lie behind the last block
    return {&m_blocks[place / kBlock][place % kBlock], length};
  }

 private:
  std::vector<std::unique_ptr<char[]>> m_blocks;
  size_t m_used = kBlock;  // of the last one
};

}  // namespace capsule::host
