#include "capsule/host/sections/survey_outline.h"

#include <algorithm>
#include <span>
#include <string_view>

#include "capsule/host/records/record_stream.h"
#include "capsule/host/sections/sound_item.h"
#include "capsule/host/sections/survey_repair.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

// As readers spell short names: with or without the '.' before the extension, padded or not.
bool IsDots(std::string_view name) {
  return name.starts_with('.') && name.find_first_not_of(". ") == name.npos;
}

bool IsDot(std::string_view name) { return IsDots(name) && !name.starts_with(".."); }
bool IsDotDot(std::string_view name) { return IsDots(name) && name.starts_with(".."); }

// Of the first of `records`. A folder has "." and ".." behind it; ".", "." and ".." belong to none.
// A "." or ".." alone says nothing: it may be that another is damaged.
std::optional<Kind> KindOf(std::span<const IndexRecord> records, bool isBehindDot) {
  const auto name = [&](size_t i) { return i < records.size() ? records[i].name : ""; };
  if (name(0).empty()) return Kind::ZeroEntry;
  if (IsDots(name(0))) {
    const bool isPair = IsDot(name(0)) ? IsDotDot(name(1)) : isBehindDot;
    const bool isOne = isPair || (IsDot(name(0)) && IsDot(name(1)) && IsDotDot(name(2)));
    return isOne ? std::optional(Kind::DotEntry) : std::nullopt;
  }
  if (IsDot(name(1)) && IsDotDot(name(2))) return Kind::Directory;
  const bool isAlone = !IsDots(name(1)) || (IsDot(name(1)) && IsDot(name(2)) && IsDotDot(name(3)));
  return isAlone ? std::optional(Kind::File) : std::nullopt;
}

}  // namespace

SurveyOutline::SurveyOutline(const IndexContents& index, uint64_t limit) {
  const auto& records = index.records;
  uint64_t end = limit;
  bool isLast = true;  // of its section
  for (size_t i = records.size(); i-- > 0;) {
    const IndexRecord& record = records[i];
    const bool isClosing = isLast && record.offset + kDirRecordSize == end;
    if (isClosing) end -= std::min<uint64_t>(end, kPartitionTrailerSize);
    if (isLast && !isClosing) end = std::min(end, uint64_t{record.offset} + record.length);
    isLast = record.type == kIndexSection;
    if (isLast) end = record.offset;
    if (isLast || isClosing || record.offset >= end) continue;
    m_Items.push_back({record.offset, end, std::nullopt});
    end = record.offset;
  }
  std::reverse(m_Items.begin(), m_Items.end());
  TellKinds(records);
}

void SurveyOutline::TellKinds(const std::vector<IndexRecord>& records) {
  const bool namesDots = std::any_of(records.begin(), records.end(),
                                     [](const IndexRecord& record) { return IsDot(record.name); });
  if (!namesDots) return;
  auto item = m_Items.begin();
  for (size_t i = 0; i < records.size() && item != m_Items.end(); ++i) {
    if (records[i].offset != item->offset) continue;
    (item++)->kind = KindOf(std::span(records).subspan(i), i > 0 && IsDot(records[i - 1].name));
  }
}

const SurveyOutline::Item* SurveyOutline::At(uint64_t offset) const {
  const auto item =
      std::lower_bound(m_Items.begin(), m_Items.end(), offset,
                       [](const Item& known, uint64_t wanted) { return known.offset < wanted; });
  return item != m_Items.end() && item->offset == offset ? &*item : nullptr;
}

bool SoundItem::Is(const SectionItem& item) const {
  const bool isEntry = item.kind == Kind::File || item.kind == Kind::Directory;
  if (!item.problem.empty() || item.isStray) return false;
  if (item.kind == Kind::ZeroEntry) return IsAllZero(item.entry);
  if (!isEntry) return true;
  if (!item.isNtfs && (HasBadName(item) || !JudgeLongName(m_Window, item).empty())) return false;
  if (item.kind == Kind::Directory) return true;
  if (item.isNtfs && item.dataOffset == item.offset + item.length) return true;  // not stored
  RecordSource source;
  source.descriptor = m_nDescriptor;
  source.rules.imageIsCompressed = m_bCompressed;
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
      return item.kind != Kind::Directory || IsDotAt(m_Window, item.offset + item.length, ".");
    case Kind::Directory:
      if (item.kind == Kind::File) return item.entry.FileSize != 0;
      return item.kind != Kind::DotEntry;
    default:
      return true;
  }
}

bool IsDotAt(FileWindow& window, uint64_t offset, std::string_view name) {
  const auto bytes = window.At(offset, kDirRecordSize);
  if (bytes.size() < kDirRecordSize) return false;
  const _ShortDirEntry entry = DecodeShortEntry(bytes.last<kDirEntrySize>());
  return (entry.Attribute & kDirectoryAttribute) != 0 && entry.Attribute != kLongNameAttribute &&
         ShortNameToBytes(entry) == name;
}

}  // namespace capsule::host
