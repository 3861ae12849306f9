// The places of sections, entries and trailers are collected while the map passes them, in
// ascending order. The index comes last in a map, so each of its records is then looked up by
// binary search.
#include "capsule/host/map/index_verifier.h"

#include <algorithm>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/index_check.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

void Keep(uint64_t offset, std::vector<uint32_t>* places, std::vector<bool>* named) {
  places->push_back(static_cast<uint32_t>(offset));
  named->push_back(false);
}

// False when the image ends before `end`.
template <typename TakeBytes>
bool Read(FileWindow& window, uint64_t begin, uint64_t end, TakeBytes take) {
  while (begin < end) {
    const auto count = std::min<uint64_t>(end - begin, FileWindow::kSize);
    const auto bytes = window.At(begin, static_cast<size_t>(count));
    if (bytes.empty()) return false;
    take(bytes);
    begin += bytes.size();
  }
  return true;
}

}  // namespace

std::string JudgeRegion(FileWindow& window, const CheckedRegion& region) {
  RunningChecksum checksum;
  const bool complete = Read(window, region.begin, region.end,
                             [&](std::span<const unsigned char> b) { checksum.Update(b); });
  const std::string found = ChecksumDigits(checksum.Value());
  if (complete && found == region.stated) return {};
  return "check value of " + std::string(region.what) + " is " + region.stated + ", its " +
         std::to_string(region.end - region.begin) + " bytes give " + found;
}

void IndexVerifier::Take(const MapItem& item) {
  switch (item.kind) {
    case MapItem::Kind::SectionHeader:
      if (item.length == kSectorAreaSize) Keep(item.offset, &m_sections, &m_namedSections);
      break;
    case MapItem::Kind::Trailer:
      Keep(item.offset + item.length - std::min<uint64_t>(item.length, kDirRecordSize), &m_closings,
           &m_namedClosings);
      break;
    case MapItem::Kind::IndexStart:
      TakeStart(item);
      break;
    case MapItem::Kind::IndexRecord:
      TakeRecord(item);
      break;
    default:
      if (item.beginsEntry) Keep(item.offset, &m_entries, &m_namedEntries);
  }
}

void IndexVerifier::TakeStart(const MapItem& item) {
  m_index = true;
  m_checked = item.type == 1;
  if (!m_checked) return;
  IndexChecksum checksum;
  Read(m_window, item.offset + kIndexPreamble, m_fileBytes,
       [&](auto bytes) { checksum.Update(bytes); });
  ++m_checkValues;
  if (checksum.Value() == item.target) return;
  m_report(item.offset, "",
           "check value of the index is " + Hex(item.target) + ", its bytes give " +
               Hex(checksum.Value()));
}

void IndexVerifier::TakeRecord(const MapItem& item) {
  switch (item.type) {
    case kIndexSection:
      ++m_sectionsNamed;
      m_lastPath.clear();
      Mark(m_sections, &m_namedSections, item);
      break;
    case kIndexFile:
    case kIndexZeroEntry:
      m_lastTarget = item.target;
      m_lastEnd = item.target + item.targetLength;
      m_lastPath.clear();
      if (m_checked && !item.name.empty() && m_sectionsNamed > 0) {
        m_lastPath = std::to_string(m_sectionsNamed - 1) + ":/" + item.name;
      }
      if (std::binary_search(m_closings.begin(), m_closings.end(), item.target)) {
        Mark(m_closings, &m_namedClosings, item);
      } else {
        Mark(m_entries, &m_namedEntries, item);
      }
      break;
    case kIndexNote:
      if (SplitNoteName(item.name).kind == NoteKind::CheckValue) TakeNote(item);
      if (item.name == kRestartName) TakeRestart(item);
      break;
    default:
      break;
  }
}

void IndexVerifier::Mark(const std::vector<uint32_t>& places, std::vector<bool>* named,
                         const MapItem& item) {
  const auto place = std::lower_bound(places.begin(), places.end(), item.target);
  const auto number = static_cast<size_t>(place - places.begin());
  const bool isKnown = place != places.end() && *place == item.target;
  if (!isKnown && StandsForUnused(item)) return;
  if (!isKnown) {
    m_report(item.offset, m_lastPath,
             "index names " + Hex(item.target) + ", where no " +
                 (item.type == kIndexSection ? "section" : "item") + " begins");
  } else if ((*named)[number] && !IsReadAsNothing(m_window, item.target)) {
    m_report(item.offset, m_lastPath, "index names " + Hex(item.target) + " twice");
  } else {
    (*named)[number] = true;
  }
}

// Writers that give every record of the header a section name one that is not there, with a zero
// entry, behind those that are.
bool IndexVerifier::StandsForUnused(const MapItem& item) {
  if (m_checked) return false;
  if (item.type == kIndexSection) return m_sectionsNamed > m_sections.size();
  return IsReadAsNothing(m_window, item.target);
}

void IndexVerifier::TakeNote(const MapItem& item) {
  if (!m_checked && m_checkValues == 0) {
    m_report(item.offset, "", "index has check values, but none of its own: it should begin CI1");
  }
  const uint64_t end = item.target + item.targetLength;
  if (end > m_fileBytes) return;  // told already
  ++m_checkValues;
  if (item.targetLength > m_budget) {
    m_report(item.offset, "", "check values cover the same bytes too often to be compared");
    return;
  }
  m_budget -= item.targetLength;
  const bool isSection = std::binary_search(m_sections.begin(), m_sections.end(), item.target);
  const bool isFile = !isSection && item.target == m_lastTarget;
  const char* what = item.target == 0 ? "the header" : isSection ? "the section" : "the item";
  m_compare({item.target, end, std::string(SplitNoteName(item.name).value), what},
            isFile ? m_lastPath : "");
}

// Where it leads is compared when its file is read.
void IndexVerifier::TakeRestart(const MapItem& item) {
  if (item.target >= m_lastTarget && item.target + item.targetLength <= m_lastEnd) return;
  m_report(item.offset, m_lastPath, "restart point does not lie in the item before it");
}

bool IndexVerifier::Names(uint64_t offset) const {
  const auto place = std::lower_bound(m_entries.begin(), m_entries.end(), offset);
  return !m_index || place == m_entries.end() || *place != offset ||
         m_namedEntries[static_cast<size_t>(place - m_entries.begin())];
}

bool IndexVerifier::NamesAll() const {
  return !m_index || std::all_of(m_namedEntries.begin(), m_namedEntries.end(),
                                 [](bool named) { return named; });
}

}  // namespace capsule::host
