// Restart points are found by decoding the file as any reader does, so the history that is noted is
// the one that a reader has at that place. A file that is damaged just has no points behind the
// damage.
#include "capsule/host/index/restart_point.h"

#include "capsule/host/error.h"
#include "capsule/host/records/record_stream.h"

namespace capsule::host {
namespace {

std::optional<RecordStream> Open(const RecordSource& source) {
  try {
    return RecordStream(source);
  } catch (const Error&) {
    return std::nullopt;
  }
}

// Goes to the next record; false if it cannot be read.
bool Advance(RecordStream& records) {
  try {
    records.Advance(records.ChunkEnd());
  } catch (const Error&) {
    return false;
  }
  return true;
}

}  // namespace

std::optional<RestartPoint> RestartPointOf(const IndexRecord& record, uint64_t place) {
  if (record.type != kIndexNote) return std::nullopt;
  const auto note = RestartOfName(record.name);
  if (!note) return std::nullopt;
  return RestartPoint{record.offset, note->fileOffset,
                      static_cast<uint32_t>(place + kRestartHistoryPlace), note->historyLength};
}

IndexRecord RestartRecord(uint64_t record, uint64_t fileOffset,
                          std::span<const unsigned char> history) {
  return {kIndexNote, RestartName(static_cast<uint32_t>(fileOffset), history),
          static_cast<uint32_t>(record), 0};
}

void FindRestartPoints(const RecordSource& source,
                       const std::function<void(const IndexRecord&)>& take) {
  if (source.rules.IsNtfs() || source.size <= kRestartDistance) return;
  std::optional<RecordStream> records = Open(source);
  if (!records) return;
  for (uint64_t wanted = kRestartDistance; records->ChunkEnd() < source.size;) {
    const uint64_t fileOffset = records->ChunkEnd();
    std::optional<IndexRecord> point;
    if (fileOffset >= wanted) {
      point = RestartRecord(records->Position(), fileOffset, records->History());
      wanted = fileOffset + kRestartDistance;
    }
    if (!Advance(*records)) return;
    if (!point) continue;
    point->length = static_cast<uint32_t>(records->Position() - point->offset);
    take(*point);
  }
}

uint64_t MostRestartBytes(uint64_t size) { return size / kRestartDistance * kMostRestartRecord; }

}  // namespace capsule::host
