#include "capsule/host/index/damage_note.h"

#include <string_view>

namespace capsule::host {
namespace {

constexpr std::string_view kDamaged = "damaged=";
constexpr std::string_view kCut = "cut=";
constexpr size_t kMostReason = 500;

}  // namespace

IndexRecord RecordOf(const DamageNote& note) {
  IndexRecord record;
  record.type = kIndexNote;
  record.name = std::string(note.isCut ? kCut : kDamaged) + note.reason.substr(0, kMostReason);
  record.offset = note.offset;
  record.length = note.length;
  return record;
}

std::optional<DamageNote> DamageNoteOf(const IndexRecord& record) {
  const bool isCut = record.name.starts_with(kCut);
  const bool isNote = record.type == kIndexNote && (isCut || record.name.starts_with(kDamaged));
  if (!isNote) return std::nullopt;
  const size_t key = isCut ? kCut.size() : kDamaged.size();
  return DamageNote{record.offset, record.length, record.name.substr(key), isCut};
}

}  // namespace capsule::host
