// IndexReader takes the records of an index one by one, with memory for one stretch of it.
#pragma once

#include <cstdint>
#include <span>

#include "capsule/container/index_format.h"
#include "capsule/host/file/file_window.h"

namespace capsule::host {

class IndexReader {
 public:
  // `position`: where the index, or a record of it, begins in the image.
  IndexReader(const ImageFile& image, uint64_t position);

  // The next `count` bytes, fewer only at the end of the image. Valid until the next call.
  std::span<const unsigned char> Take(size_t count);

  // The next record; false where the image ends before the record does. Throws Error.
  bool TakeRecord(IndexRecord* record);

  // The bytes of the record that was taken; until the next call.
  std::span<const unsigned char> RecordBytes() const { return m_record; }

  // Where the next record begins in the image, and where the image ends.
  uint64_t Position() const { return m_position; }
  uint64_t End() const { return m_end; }

 private:
  FileWindow m_window;
  uint64_t m_position;
  uint64_t m_end;
  std::span<const unsigned char> m_record;
};

}  // namespace capsule::host
