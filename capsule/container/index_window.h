// IndexWindow takes the records of an index one by one from a file, with memory for one stretch of
// it at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "capsule/container/index_format.h"

namespace capsule {

class IndexWindow {
 public:
  // `descriptor` stays the caller's. `position`: where the first record lies.
  IndexWindow(int descriptor, int64_t position);

  // The next record; none where the file ends before the record does. Throws the int 0 when the
  // file cannot be read.
  std::optional<IndexRecord> TakeRecord();

  // Where the next record lies.
  int64_t Position() const { return m_nPosition + static_cast<int64_t>(m_nTaken); }

 private:
  void Refill();

  int m_nDescriptor;
  int64_t m_nPosition;  // of the first byte held
  std::vector<unsigned char> m_Bytes;
  size_t m_nTaken = 0;
  bool m_bEnd = false;  // the file ends with the bytes held
};

}  // namespace capsule
