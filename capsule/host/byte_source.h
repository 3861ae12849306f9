// ByteSource is where the bytes of an image, or of a file to insert, come from: a file, memory, or
// whatever a host has.
//
//   class Watched : public host::ByteSource {
//    public:
//     uint64_t Size() const override { return m_file->Size(); }
//     size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const override {
//       Print(offset, out.size());
//       return m_file->ReadAt(offset, out);
//     }
//
//    private:
//     std::shared_ptr<const host::ByteSource> m_file = host::FileSource("photos.cap");
//   };
//   host::Image watched(std::make_shared<Watched>(), "photos.cap");
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>

#include "capsule/export.h"

namespace capsule::host {

// Many threads may use a source at once. Both operations may throw: std::system_error arrives as a
// host::Error that names the image, everything else as it is.
class CAPSULE_API ByteSource {
 public:
  ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;
  virtual ~ByteSource();

  // The number of bytes. It is asked for often.
  virtual uint64_t Size() const = 0;

  // Fills `out` with the bytes from `offset` on. Returns how many there were: fewer than asked for
  // only at the end.
  virtual size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const = 0;
};

// The bytes of a regular file. Throws host::Error when it cannot be opened.
CAPSULE_API std::shared_ptr<const ByteSource> FileSource(const std::filesystem::path& path);

// The bytes of an open file. The descriptor stays the caller's, and open as long as the source is
// used; its position is not.
CAPSULE_API std::shared_ptr<const ByteSource> DescriptorSource(int descriptor);

// Bytes in memory. They stay the caller's and must outlive the source.
CAPSULE_API std::shared_ptr<const ByteSource> MemorySource(std::span<const unsigned char> bytes);

// `size` bytes that `read` hands out as ByteSource::ReadAt does.
CAPSULE_API std::shared_ptr<const ByteSource> FunctionSource(
    uint64_t size, std::function<size_t(uint64_t offset, std::span<unsigned char> out)> read);

}  // namespace capsule::host
