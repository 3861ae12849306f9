// ImageFile is the bytes of an image and what messages call it: all that reads an image is given
// one.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "capsule/host/byte_source.h"

namespace capsule::host {

// A value: copies share the source.
class ImageFile {
 public:
  ImageFile() = default;

  // Throws Error when the source cannot tell its length.
  ImageFile(std::shared_ptr<const ByteSource> source, std::string name);

  // An open file, which stays the caller's.
  ImageFile(int descriptor, std::string name);

  const std::string& Name() const { return m_state->name; }
  const std::shared_ptr<const ByteSource>& Source() const { return m_state->source; }

  // In bytes, as it was when the object was made: what is read by it has one length, whatever the
  // source says later.
  uint64_t Size() const { return m_state->size; }

  // Fills `out` with the bytes from `offset` on: how many there were, fewer than asked for only at
  // the end. Throws Error.
  size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const;

 private:
  struct State {
    std::shared_ptr<const ByteSource> source;
    std::string name;
    uint64_t size;
  };
  std::shared_ptr<const State> m_state;
};

}  // namespace capsule::host
