// RestartCollector notes the restart points of files while they are written, when what they may
// refer back to is at hand. It keeps a few thousand at most, so that its memory is bounded; the
// index writer finds those of other files by decoding them.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capsule/container/index_format.h"

namespace capsule::host {

class RestartCollector {
 public:
  // The data block record at `record` follows `before`, whole chunks of a file up to `fileOffset`,
  // and is compressed or not, as they are.
  void Take(int64_t record, uint32_t fileOffset, std::span<const unsigned char> before,
            bool isCompressed);

  // Of an insertion that was taken back: records from `offset` on are gone.
  void Forget(int64_t offset);

  // The points of the file whose records lie from `begin` to `limit`, as records of an index but
  // for their length, if those of a file of `size` bytes are all there; else none.
  std::span<const IndexRecord> Of(uint64_t begin, uint64_t limit, uint64_t size) const;

 private:
  std::vector<IndexRecord> m_Points;
  uint32_t m_nLast = UINT32_MAX;  // offset in the file that was told last
  uint32_t m_nWanted = 0;
};

}  // namespace capsule::host
