// FileWindow reads an open file through one buffer, forwards at best.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capsule::host {

class FileWindow {
 public:
  static constexpr size_t kSize = size_t{64} << 10;

  // `descriptor` stays the caller's; `name` is what errors call the file.
  FileWindow(int descriptor, std::string name, size_t size = kSize);

  // Up to `count` bytes (at most the size of the window) at `offset`, fewer only at the end of the
  // file. Valid until the next call. Throws Error when the file cannot be read.
  std::span<const unsigned char> At(uint64_t offset, size_t count);

 private:
  static constexpr size_t kLeapSize = size_t{4} << 10;

  void Fill(uint64_t offset, size_t count);

  int m_nDescriptor;
  std::string m_strName;
  std::vector<unsigned char> m_Bytes;
  uint64_t m_nStart = 0;
  size_t m_nFilled = 0;
};

}  // namespace capsule::host
