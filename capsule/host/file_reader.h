// FileReader reads one file of an image, any range in any order, with bounded memory.
//
// A pass from the first byte to the last in order also compares the file's check value, when the
// index has one: then the last piece is refused, so nothing of it is to be kept. Ranges that leave
// something out cannot be compared with it. An empty file is compared by any Read.
//
// Reading forward decodes every record once. A range elsewhere is decoded from the nearest place
// before it whose history is known: restart points, about every mebibyte of a file, in images that
// Capsule has indexed, and up to 64 places that the reader has kept on its way.
// One thread uses a reader; readers of the same image are independent of each other. The Image must
// outlive it.
//
//   host::FileReader reader = image.OpenFile(entry);
//   reader.CopyTo(0, reader.Size(), [&](std::span<const unsigned char> piece) { Use(piece); });
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "capsule/export.h"
#include "capsule/host/entry.h"
#include "capsule/host/error.h"
#include "capsule/host/impl_pointer.h"

namespace capsule::host {

struct RecordSource;

class CAPSULE_API FileReader {
 public:
  FileReader(FileReader&&) noexcept;
  FileReader& operator=(FileReader&&) noexcept;
  ~FileReader();

  uint64_t Size() const;

  // Fills `out` with the bytes from `offset` on. Returns how many there were: fewer than asked for
  // only at the end of the file. Throws host::Error when the records do not hold exactly what they
  // state; `out` may then be half filled.
  size_t Read(uint64_t offset, std::span<unsigned char> out);

  // Hands out `length` bytes from `offset` on, fewer at the end of the file, in order and in pieces
  // of at most 128 KiB; of an empty file none, but its check value is compared. Throws as Read
  // does; what was handed out by then is right.
  void CopyTo(uint64_t offset, uint64_t length,
              const std::function<void(std::span<const unsigned char>)>& take);

 private:
  friend class Image;
  struct Impl;
  explicit FileReader(RecordSource source);

  ImplPointer<Impl> m_impl;
};

}  // namespace capsule::host
