#include "capsule/host/sections/sound_item.h"

#include "capsule/host/records/long_name_check.h"

namespace capsule::host {

std::string JudgeLongName(FileWindow& window, const SectionItem& item) {
  const bool hasData = item.kind == SectionItem::Kind::File;
  const uint64_t length = hasData ? item.dataOffset - item.offset : item.length;
  if (length == kDirRecordSize) return {};
  return JudgeLongName(window.At(item.offset, static_cast<size_t>(length)), item.entry);
}

}  // namespace capsule::host
