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

}  // namespace

void IndexVerifier::Take(const MapItem& item) {
  switch (item.kind) {
    case MapItem::Kind::SectionHeader:
      if (item.length == kSectorAreaSize) Keep(item.offset, &m_Sections, &m_NamedSections);
      break;
    case MapItem::Kind::Trailer:
      Keep(item.offset + item.length - std::min<uint64_t>(item.length, kDirRecordSize), &m_Closings,
           &m_NamedClosings);
      break;
    case MapItem::Kind::IndexStart:
      TakeStart(item);
      break;
    case MapItem::Kind::IndexRecord:
      TakeRecord(item);
      break;
    default:
      if (item.beginsEntry) Keep(item.offset, &m_Entries, &m_NamedEntries);
  }
}

void IndexVerifier::TakeStart(const MapItem& item) {
  m_bIndex = true;
  m_bChecked = item.type == 1;
  if (!m_bChecked) return;
  IndexChecksum checksum;
  Read(item.offset + kIndexPreamble, m_nFileBytes, [&](auto bytes) { checksum.Update(bytes); });
  ++m_nCheckValues;
  if (checksum.Value() == item.target) return;
  m_Report(item.offset, "",
           "check value of the index is " + Hex(item.target) + ", its bytes give " +
               Hex(checksum.Value()));
}

void IndexVerifier::TakeRecord(const MapItem& item) {
  switch (item.type) {
    case kIndexSection:
      ++m_nSectionsNamed;
      m_strLastPath.clear();
      Mark(m_Sections, &m_NamedSections, item);
      break;
    case kIndexFile:
    case kIndexZeroEntry:
      m_nLastTarget = item.target;
      m_nLastEnd = item.target + item.targetLength;
      m_strLastPath.clear();
      if (m_bChecked && !item.name.empty() && m_nSectionsNamed > 0) {
        m_strLastPath = std::to_string(m_nSectionsNamed - 1) + ":/" + item.name;
      }
      if (std::binary_search(m_Closings.begin(), m_Closings.end(), item.target)) {
        Mark(m_Closings, &m_NamedClosings, item);
      } else {
        Mark(m_Entries, &m_NamedEntries, item);
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
    m_Report(item.offset, m_strLastPath,
             "index names " + Hex(item.target) + ", where no " +
                 (item.type == kIndexSection ? "section" : "item") + " begins");
  } else if ((*named)[number] && !IsReadAsNothing(m_Window, item.target)) {
    m_Report(item.offset, m_strLastPath, "index names " + Hex(item.target) + " twice");
  } else {
    (*named)[number] = true;
  }
}

// Writers that give every record of the header a section name one that is not there, with a zero
// entry, behind those that are.
bool IndexVerifier::StandsForUnused(const MapItem& item) {
  if (m_bChecked) return false;
  if (item.type == kIndexSection) return m_nSectionsNamed > m_Sections.size();
  return IsReadAsNothing(m_Window, item.target);
}

void IndexVerifier::TakeNote(const MapItem& item) {
  if (!m_bChecked && m_nCheckValues == 0) {
    m_Report(item.offset, "", "index has check values, but none of its own: it should begin CI1");
  }
  const uint64_t end = item.target + item.targetLength;
  if (end > m_nFileBytes) return;  // told already
  ++m_nCheckValues;
  if (item.targetLength > m_Budget) {
    m_Report(item.offset, "", "check values cover the same bytes too often to be compared");
    return;
  }
  m_Budget -= item.targetLength;
  RunningChecksum checksum;
  const bool complete = Read(item.target, end, [&](auto bytes) { checksum.Update(bytes); });
  const std::string found = ChecksumDigits(checksum.Value());
  const std::string stated(SplitNoteName(item.name).value);
  if (complete && found == stated) return;
  const bool isSection = std::binary_search(m_Sections.begin(), m_Sections.end(), item.target);
  const bool isFile = !isSection && item.target == m_nLastTarget;
  const std::string what = item.target == 0 ? "the header" : isSection ? "the section" : "the item";
  m_Report(item.target, isFile ? m_strLastPath : "",
           "check value of " + what + " is " + stated + ", its " +
               std::to_string(item.targetLength) + " bytes give " + found);
}

// Where it leads is compared when its file is read.
void IndexVerifier::TakeRestart(const MapItem& item) {
  if (item.target >= m_nLastTarget && item.target + item.targetLength <= m_nLastEnd) return;
  m_Report(item.offset, m_strLastPath, "restart point does not lie in the item before it");
}

bool IndexVerifier::Read(uint64_t begin, uint64_t end,
                         const std::function<void(std::span<const unsigned char>)>& take) {
  while (begin < end) {
    const auto count = std::min<uint64_t>(end - begin, FileWindow::kSize);
    const auto bytes = m_Window.At(begin, static_cast<size_t>(count));
    if (bytes.empty()) return false;
    take(bytes);
    begin += bytes.size();
  }
  return true;
}

bool IndexVerifier::Names(uint64_t offset) const {
  const auto place = std::lower_bound(m_Entries.begin(), m_Entries.end(), offset);
  return !m_bIndex || place == m_Entries.end() || *place != offset ||
         m_NamedEntries[static_cast<size_t>(place - m_Entries.begin())];
}

bool IndexVerifier::NamesAll() const {
  return !m_bIndex || std::all_of(m_NamedEntries.begin(), m_NamedEntries.end(),
                                  [](bool named) { return named; });
}

}  // namespace capsule::host
