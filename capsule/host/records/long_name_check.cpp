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

std::string NameOf(const EntryGroup& group) {
  return JudgeLongName(group).empty() ? group.Name() : group.ShortName();
}

}  // namespace capsule::host
