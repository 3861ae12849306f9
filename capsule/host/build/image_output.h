// ImageOutput writes an image from front to back, in large pieces, and lets the system bring to
// disk early what is written, so that there is little to wait for in the end.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capsule::host {

class ImageOutput {
 public:
  // `descriptor` stays the caller's. `name`: what errors call the image.
  ImageOutput(int descriptor, std::string name);

  // Where the next byte goes.
  uint64_t Position() const { return m_flushed + m_buffer.size(); }

  // Goes on at `offset`, at or before where it has got to, or behind what others have written.
  void GoTo(uint64_t offset);

  // Throws Error when the system cannot take the bytes.
  void Append(std::span<const unsigned char> bytes);
  void Flush();

 private:
  void Write(std::span<const unsigned char> bytes);

  int m_descriptor;
  std::string m_name;
  uint64_t m_flushed = 0;  // offset of the first buffered byte
  uint64_t m_sent = 0;     // what lies before is on its way to disk
  std::vector<unsigned char> m_buffer;
};

}  // namespace capsule::host
