// A checked index is right about where items lie and what they are called: its records are followed
// one by one, and the section's own bytes must agree. Where they do not, what the index says of an
// item stands for it.
#include "capsule/host/sections/indexed_survey.h"

#include <algorithm>
#include <string>

#include "capsule/host/error.h"
#include "capsule/host/sections/dot_row.h"
#include "capsule/host/sections/sound_item.h"
#include "capsule/host/sections/survey_repair.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

std::string LastSegment(const std::string& path) { return path.substr(path.rfind('/') + 1); }

size_t DepthOf(const std::string& path) {
  return static_cast<size_t>(std::count(path.begin(), path.end(), '/'));
}

bool Agrees(const SectionItem& item, const IndexRecord& record) {
  const bool isEntry = item.IsEntry();
  if (isEntry && !record.name.empty() && item.name != LastSegment(record.name)) return false;
  if (item.isNtfs) return record.type == kIndexFile;
  if (item.kind == Kind::ZeroEntry && !IsMostlyZero(item.entry)) return false;
  const bool isLong = isEntry && item.path.empty() && record.name.empty();  // left out of the index
  switch (record.type) {
    case kIndexSection:
      return item.kind == Kind::Section;
    case kIndexFile:
      return item.kind == Kind::File;
    default:
      return item.kind != Kind::File && (isLong || isEntry == !record.name.empty());
  }
}

// Goes from record to record of a checked index.
class IndexedSurvey {
 public:
  IndexedSurvey(const ImageFile& image, const IndexContents& index, const SurveyVisitor& visitor)
      : m_scanner(image), m_window(image), m_index(index), m_visitor(visitor) {}

  void Run() {
    for (m_at = 0; m_at < m_index.records.size(); ++m_at) {
      if (!ClosesSection()) TakeRecord(m_index.records[m_at]);
    }
  }

 private:
  const IndexRecord* NextRecord() const {
    return m_at + 1 < m_index.records.size() ? &m_index.records[m_at + 1] : nullptr;
  }

  bool ClosesSection() const {
    const IndexRecord& record = m_index.records[m_at];
    const IndexRecord* next = NextRecord();
    return record.type == kIndexZeroEntry && record.name.empty() &&
           (next == nullptr || next->type == kIndexSection);
  }

  void TakeRecord(const IndexRecord& record) {
    const uint64_t end = std::min<uint64_t>(uint64_t{record.offset} + record.length, m_index.end);
    SurveyItem found;
    const std::string damage = Read(record, end, &found.item);
    const bool isGood = damage.empty();
    if (!isGood) m_visitor.onDamage(record.offset, damage);
    if (!isGood && !Replace(record, end, &found)) return;
    CountDots(found.item.kind);
    m_visitor.onItem(found);
  }

  // Behind a folder stand "." and "..", else ".", "." and "..".
  void CountDots(Kind kind) {
    if (kind == Kind::DotEntry && m_dotsLeft > 0) {
      --m_dotsLeft;
    } else {
      m_dotsLeft = kind == Kind::DotEntry || kind == Kind::Directory ? 2 : 0;
    }
  }

  // Whether a damaged record that ends at `end`, of a folder's own or a zero entry, is of a dot
  // entry.
  bool IsDotBefore(uint64_t end) {
    const auto dotAt = [&](size_t i) { return DotNameAt(m_window, end + i * kDirRecordSize); };
    return m_dotsLeft > 0 || AreOfFolder(dotAt, 0);
  }

  // What is wrong with the item, or nothing.
  std::string Read(const IndexRecord& record, uint64_t end, SectionItem* item) {
    try {
      m_scanner.Resume(record.offset, record.type != kIndexSection, end);
      const bool isGood = m_scanner.Next(item) && Agrees(*item, record) &&
                          (item->isNtfs || item->offset + item->length == end);
      if (!isGood) return "its records are not what the index says";
      return item->isStray ? "its folder is lost" : item->problem;
    } catch (const ShortageError&) {
      throw;
    } catch (const Error& error) {
      return error.Reason();
    }
  }

  // Makes of `found` what the index says of it; false when nothing can be made.
  bool Replace(const IndexRecord& record, uint64_t end, SurveyItem* found) {
    SectionItem& item = found->item;
    if (record.type == kIndexSection) {
      if (item.kind != Kind::Section || item.length == 0) m_scanner.PassSectionHeader(&item);
      item.offset = record.offset;
      return true;
    }
    const bool hasEntry = item.kind == Kind::File && item.dataOffset != 0 && item.dataOffset <= end;
    const bool isNtfsEntry = item.isNtfs && item.kind != Kind::NtfsEnd && item.dataOffset != 0;
    if (isNtfsEntry || (record.type == kIndexFile && hasEntry)) {
      if (!record.name.empty()) item.name = LastSegment(record.name);
      if (item.isNtfs) item.depth = DepthOf(record.name);
    } else if (m_scanner.InNtfsSection()) {
      return ReplaceNtfs(record, found);
    } else if (record.type == kIndexFile) {
      return false;
    } else if (!record.name.empty()) {
      *found = LostFolder(record.offset, LastSegment(record.name));
    } else {
      *found = PlainItem(IsDotBefore(end) ? Kind::DotEntry : Kind::ZeroEntry, record.offset);
    }
    item.length = end - record.offset;
    return true;
  }

  // Of an entry whose FILE record is lost: a folder when something is below it.
  bool ReplaceNtfs(const IndexRecord& record, SurveyItem* found) {
    const IndexRecord* next = NextRecord();
    const bool isFolder =
        next != nullptr && !record.name.empty() && next->name.starts_with(record.name + '/');
    if (!isFolder) return false;
    *found = LostFolder(record.offset, LastSegment(record.name));
    found->item.isNtfs = true;
    found->item.depth = DepthOf(record.name);
    m_scanner.OpenLost(found->item.name, found->item.depth);
    return true;
  }

  SectionScanner m_scanner;
  FileWindow m_window;
  const IndexContents& m_index;
  const SurveyVisitor& m_visitor;
  size_t m_at = 0;
  int m_dotsLeft = 0;  // that are to follow
};

}  // namespace

void SurveyByIndex(const ImageFile& image, const IndexContents& index,
                   const SurveyVisitor& visitor) {
  IndexedSurvey(image, index, visitor).Run();
}

}  // namespace capsule::host
