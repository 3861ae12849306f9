#include "capsule/host/index/restart_point.h"

#include <span>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

constexpr size_t kHistoryPlace = kRestartName.size() + sizeof(uint32_t);
constexpr size_t kRecordStart = 3;  // bytes of an index record before its name
constexpr size_t kRecordRest = 8;   // and behind it

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
  const std::string& name = record.name;
  if (record.type != kIndexNote || !name.starts_with(kRestartName) || name.size() < kHistoryPlace ||
      name.size() - kHistoryPlace > kMaxHistory) {
    return std::nullopt;
  }
  const std::vector<unsigned char> bytes(name.begin(), name.begin() + kHistoryPlace);
  return RestartPoint{record.offset, platform::LoadLe32(&bytes[kRestartName.size()]),
                      static_cast<uint32_t>(place + kRecordStart + kHistoryPlace),
                      static_cast<uint16_t>(name.size() - kHistoryPlace)};
}

IndexRecord RestartRecord(uint64_t record, uint64_t fileOffset,
                          std::span<const unsigned char> history) {
  std::vector<unsigned char> name(kRestartName.begin(), kRestartName.end());
  name.resize(kHistoryPlace);
  platform::StoreLe32(&name[kRestartName.size()], static_cast<uint32_t>(fileOffset));
  name.insert(name.end(), history.begin(), history.end());
  return {kIndexNote, {name.begin(), name.end()}, static_cast<uint32_t>(record), 0};
}

void FindRestartPoints(const RecordSource& source,
                       const std::function<void(const IndexRecord&)>& take) {
  if (source.ntfs || source.size <= kRestartDistance) return;
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

uint64_t MostRestartBytes(uint64_t size) {
  constexpr uint64_t kMost = kRecordStart + kHistoryPlace + kMaxHistory + kRecordRest;
  return size / kRestartDistance * kMost;
}

}  // namespace capsule::host
