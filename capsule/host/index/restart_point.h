// Restart points: places in a long file where decoding may begin.
//
// An index has a note on one about every mebibyte of a file, with the offset and length of the data
// block record that begins there. Only an index with a check value is believed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "capsule/container/index_format.h"
#include "capsule/host/records/record_source.h"

namespace capsule::host {

// Bytes of a file from one restart point to the next, at least. None lies before the first.
inline constexpr uint32_t kRestartDistance = uint32_t{1} << 20;

// What a type-6 record tells that begins at `place` in the image; none when it is no restart point.
std::optional<RestartPoint> RestartPointOf(const IndexRecord& record, uint64_t place);

// The index record of a restart point, but for its length.
IndexRecord RestartRecord(uint64_t record, uint64_t fileOffset,
                          std::span<const unsigned char> history);

// Decodes the file and hands out the index record of each of its restart points, up to where it is
// damaged. Files of NTFS partitions have none.
void FindRestartPoints(const RecordSource& source,
                       const std::function<void(const IndexRecord&)>& take);

// The bytes that the restart points of a file of `size` bytes take in an index, at most.
uint64_t MostRestartBytes(uint64_t size);

}  // namespace capsule::host
