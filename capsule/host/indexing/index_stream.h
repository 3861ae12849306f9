// IndexStream appends index records to an image, buffered, and can fill in check values later.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/container/index_format.h"

namespace capsule::host {

class IndexStream {
 public:
  // Writes to `descriptor` from `offset` on, where the preamble comes first.
  IndexStream(int descriptor, std::string name, uint64_t offset);

  // Appends a record; where in the file it begins.
  uint64_t Append(const IndexRecord& record);

  // Writes `record` over the one of the same size at `position`.
  void Replace(uint64_t position, const IndexRecord& record);

  // Writes what is buffered and the preamble. Where the index ends.
  uint64_t Finish();

 private:
  void Flush();
  void WriteAt(uint64_t offset, std::span<const unsigned char> bytes);

  int m_descriptor;
  std::string m_name;
  uint64_t m_start;
  uint64_t m_flushed;  // file offset of the first buffered byte
  std::vector<unsigned char> m_buffer;
};

}  // namespace capsule::host
