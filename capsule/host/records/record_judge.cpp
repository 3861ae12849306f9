#include "capsule/host/records/record_judge.h"

#include <algorithm>
#include <vector>

#include "capsule/host/records/unit_decoder.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

bool IsWholeDataRecord(std::span<const unsigned char> bytes, const RecordRules& rules) {
  const auto record = DecodeDataRecord(bytes, rules);
  if (!record || record->Size() > bytes.size()) return false;
  if (!record->isCompressed) return true;
  UnitDecoder decoder;
  decoder.Pretend(0);
  std::vector<unsigned char> chunk(record->chunk);
  return decoder.Decode(bytes.subspan(record->headerSize, record->payload), chunk).empty();
}

uint64_t MostBytesIn(uint64_t room) {
  return std::min<uint64_t>(room * kMaxExpansion, static_cast<uint64_t>(kMaxImageSize));
}

std::string JudgeSize(uint64_t size, uint64_t room) {
  if (size <= MostBytesIn(room)) return {};
  const std::string stated = "its entry states " + std::to_string(size) + " bytes, but ";
  if (size > static_cast<uint64_t>(kMaxImageSize)) return stated + "files are below 2 GiB";
  return stated + std::to_string(room) + " bytes of records cannot hold them";
}

}  // namespace capsule::host
