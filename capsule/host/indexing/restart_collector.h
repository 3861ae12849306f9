// RestartCollector notes the restart points of files while they are written, when what they may
// refer back to is at hand. It keeps a few thousand at most, so that its memory is bounded; the
// index writer finds those of other files by decoding them.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capsule/blocks/insert_observer.h"
#include "capsule/container/index_format.h"

namespace capsule::host {

class RestartCollector {
 public:
  // Takes the chunks of a file, one after the other.
  void Take(const InsertObserver::Chunk& next);

  // Drops what came of an insertion that was taken back: records from `offset` on are gone.
  void Forget(int64_t offset);

  // The points of the file whose records lie from `begin` to `limit`, as records of an index but
  // for their length, if those of a file of `size` bytes are all there; else none.
  std::span<const IndexRecord> Of(uint64_t begin, uint64_t limit, uint64_t size) const;

 private:
  std::vector<IndexRecord> m_points;
  uint32_t m_wanted = 0;  // offset in the file from which on the next point is due
};

}  // namespace capsule::host
