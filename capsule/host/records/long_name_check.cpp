#include "capsule/host/records/long_name_check.h"

namespace capsule::host {

std::string JudgeLongName(const EntryGroup& group) {
  for (size_t i = 0; i < group.Pieces(); ++i) {
    const auto fault = group.FaultOf(i);
    if (!fault) continue;
    if (fault->isChecksum) return "belongs to another short name";
    return "piece " + std::to_string(fault->has) + " where " + std::to_string(fault->needs) +
           " belongs";
  }
  return std::string(group.FaultOfFilling());
}

std::string JudgeLongName(std::span<const unsigned char> records, const _ShortDirEntry& entry) {
  if (records.empty() || records.size() % kDirRecordSize != 0) {
    return "records of other sizes between its own";
  }
  const size_t pieces = records.size() / kDirRecordSize - 1;
  if (pieces > kMaxLongNamePieces) {
    return "more than " + std::to_string(kMaxLongNamePieces) + " pieces";
  }
  EntryGroup group;
  for (size_t i = 0; i < pieces; ++i) {
    const auto record = records.subspan(i * kDirRecordSize, kDirRecordSize);
    group.AddPiece(record.last<kDirEntrySize>());
  }
  group.SetEntry(entry);
  return JudgeLongName(group);
}

}  // namespace capsule::host
