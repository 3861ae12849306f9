#include "capsule/host/sections/sound_item.h"

#include "capsule/host/records/record_stream.h"
#include "capsule/host/sections/survey_repair.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

}  // namespace

bool SoundItem::Is(const SectionItem& item) const {
  if (!item.problem.empty() || item.isStray) return false;
  if (item.kind == Kind::ZeroEntry) return IsAllZero(item.entry);
  if (!item.IsEntry()) return true;
  if (!item.isNtfs && (HasBadName(item) || !item.nameProblem.empty())) return false;
  if (item.kind != Kind::File) return true;
  if (item.isNtfs && item.dataOffset == item.offset + item.length) return true;  // not stored
  RecordSource source;
  source.image = m_image;
  source.rules.imageIsCompressed = m_compressed;
  source.begin = item.dataOffset;
  source.limit = item.offset + item.length;
  source.size = item.entry.FileSize;
  source.rules.kind = item.Records();
  source.fileRecord = item.offset;
  return ProblemOf(source).empty();
}

bool SoundItem::IsRatherThan(const SectionItem& item, Kind kind) const {
  if (!Is(item)) return false;
  switch (kind) {
    case Kind::ZeroEntry:
      return !IsMostlyZero(item.entry);
    case Kind::DotEntry:
      if (item.kind == Kind::File) return item.entry.FileSize != 0;
      return item.kind != Kind::Directory ||
             DotNameAt(m_window, item.offset + item.length) == DotName::Itself;
    case Kind::Directory:
      if (item.kind == Kind::File) return item.entry.FileSize != 0;
      return item.kind != Kind::DotEntry;
    default:
      return true;
  }
}

DotName DotNameAt(FileWindow& window, uint64_t offset) {
  const auto bytes = window.At(offset, kDirRecordSize);
  if (bytes.size() < kDirRecordSize) return DotName::None;
  const _ShortDirEntry entry = DecodeShortEntry(bytes.last<kDirEntrySize>());
  return RoleOf(entry) == EntryRole::Dot ? DotNameOf(entry) : DotName::None;
}

}  // namespace capsule::host
