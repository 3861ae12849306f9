// The items are gone through from the last to the first, since each ends where the one behind it
// begins, and the last of a section in front of the trailer.
#include "capsule/host/sections/survey_outline.h"

#include <algorithm>
#include <span>
#include <string_view>

#include "capsule/host/sections/dot_row.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

// As readers spell short names: with or without the '.' before the extension, padded or not.
DotName DotNameIn(std::string_view name) {
  if (!name.starts_with('.') || name.find_first_not_of(". ") != name.npos) return DotName::None;
  return name.starts_with("..") ? DotName::Above : DotName::Itself;
}

// The kind of the item that the first of `records` names, or nothing where the names do not tell.
// A single "." or ".." does not tell: the record beside it may be damaged.
std::optional<Kind> KindOf(std::span<const IndexRecord> records, bool isBehindDot) {
  const auto dotAt = [&](size_t i) {
    return i < records.size() ? DotNameIn(records[i].name) : DotName::None;
  };
  if (records[0].name.empty()) return Kind::ZeroEntry;
  if (dotAt(0) != DotName::None) {
    const bool isPair = dotAt(0) == DotName::Itself ? AreOfFolder(dotAt, 0) : isBehindDot;
    const bool isOne = isPair || AreOfNoFolder(dotAt, 0);
    return isOne ? std::optional(Kind::DotEntry) : std::nullopt;
  }
  if (AreOfFolder(dotAt, 1)) return Kind::Directory;
  const bool isAlone = dotAt(1) == DotName::None || AreOfNoFolder(dotAt, 1);
  return isAlone ? std::optional(Kind::File) : std::nullopt;
}

bool IsItself(const IndexRecord& record) { return DotNameIn(record.name) == DotName::Itself; }

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
    m_items.push_back({record.offset, end, std::nullopt});
    end = record.offset;
  }
  std::reverse(m_items.begin(), m_items.end());
  TellKinds(records);
}

void SurveyOutline::TellKinds(const std::vector<IndexRecord>& records) {
  if (std::none_of(records.begin(), records.end(), IsItself)) return;
  auto item = m_items.begin();
  for (size_t i = 0; i < records.size() && item != m_items.end(); ++i) {
    if (records[i].offset != item->offset) continue;
    (item++)->kind = KindOf(std::span(records).subspan(i), i > 0 && IsItself(records[i - 1]));
  }
}

const SurveyOutline::Item* SurveyOutline::At(uint64_t offset) const {
  const auto item =
      std::lower_bound(m_items.begin(), m_items.end(), offset,
                       [](const Item& known, uint64_t wanted) { return known.offset < wanted; });
  return item != m_items.end() && item->offset == offset ? &*item : nullptr;
}

}  // namespace capsule::host
