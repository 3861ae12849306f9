// FileWindow reads an image through one buffer, forwards at best.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capsule/host/file/image_file.h"

namespace capsule::host {

class FileWindow {
 public:
  static constexpr size_t kSize = size_t{64} << 10;

  explicit FileWindow(ImageFile image, size_t size = kSize);

  // Up to `count` bytes (at most the size of the window) at `offset`, fewer only at the end of the
  // file. Valid until the next call. Throws Error when the file cannot be read.
  std::span<const unsigned char> At(uint64_t offset, size_t count);

 private:
  static constexpr size_t kLeapSize = size_t{4} << 10;

  void Fill(uint64_t offset, size_t count);

  ImageFile m_image;
  std::vector<unsigned char> m_bytes;
  uint64_t m_start = 0;
  size_t m_filled = 0;
};

}  // namespace capsule::host
