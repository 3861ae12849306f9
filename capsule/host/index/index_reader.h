// IndexReader takes the records of an index one by one, with memory for one stretch of it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/image_file.h"

namespace capsule::host {

class IndexReader {
 public:
  // `position`: where the index, or a record of it, begins in the image.
  IndexReader(const ImageFile& image, uint64_t position);

  // Counts all bytes from here on into `sum`, which must outlive the reader.
  void SumUp(IndexChecksum* sum);

  // The next `count` bytes, at most the size of a record, fewer only at the end of the image. Valid
  // until the next call. Throws Error.
  std::span<const unsigned char> Take(size_t count);

  // The next record; false where the image ends before the record does. Throws Error.
  bool TakeRecord(IndexRecord* record);

  // Reads on to the end of the image.
  void TakeRest();

  // Where the next record begins in the image.
  uint64_t Position() const { return m_read - (m_bytes.size() - m_used); }

 private:
  std::span<const unsigned char> Peek(size_t count);
  void Refill();

  ImageFile m_image;
  uint64_t m_read;  // up to where the image was read
  uint64_t m_end;
  std::vector<unsigned char> m_bytes;
  size_t m_used = 0;
  IndexChecksum* m_sum = nullptr;
};

}  // namespace capsule::host
