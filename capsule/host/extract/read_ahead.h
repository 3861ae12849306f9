// ReadAhead is a source that has a stretch of another one in memory: the records of many small
// files lie side by side, and one read brings them all.
//
//   auto ahead = std::make_shared<ReadAhead>(image);
//   ahead->Hold(begin, end);
//   source.image = ImageFile(ahead, image.Name());
//
// One thread at a time uses it.
#pragma once

#include <algorithm>
#include <vector>

#include "capsule/host/byte_source.h"
#include "capsule/host/error.h"
#include "capsule/host/file/image_file.h"

namespace capsule::host {

class ReadAhead : public ByteSource {
 public:
  explicit ReadAhead(ImageFile image) : m_image(std::move(image)) {}

  uint64_t Size() const override { return m_image.Size(); }

  // Everything outside of what is held is read when it is asked for.
  size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const override {
    if (!Holds(offset, offset + out.size())) return m_image.ReadAt(offset, out);
    const auto held = std::span(m_bytes).subspan(static_cast<size_t>(offset - m_begin), out.size());
    std::copy(held.begin(), held.end(), out.begin());
    return out.size();
  }

  bool Holds(uint64_t begin, uint64_t end) const {
    return begin >= m_begin && begin <= end && end <= m_begin + m_filled;
  }

  // Reads from `begin` to `end` in one go. Where that fails nothing is held: whoever asks for the
  // bytes will be told.
  void Hold(uint64_t begin, uint64_t end) {
    const auto count = static_cast<size_t>(end - begin);
    if (m_bytes.size() < count) m_bytes.resize(count);
    m_begin = begin;
    m_filled = 0;
    try {
      m_filled = m_image.ReadAt(begin, std::span(m_bytes).first(count));
    } catch (const Error&) {
      return;
    }
  }

  // What is held.
  std::span<const unsigned char> Bytes() const { return std::span(m_bytes).first(m_filled); }

 private:
  ImageFile m_image;
  std::vector<unsigned char> m_bytes;
  uint64_t m_begin = 0;
  size_t m_filled = 0;
};

}  // namespace capsule::host
