// Where no record begins, the bytes are passed over up to the next place that looks like one. The
// kinds of records differ; how a section begins and ends, and how damage is told, is the same for
// both and stands here.
#include "capsule/host/map/section_map.h"

#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

std::string Count(uint64_t n) { return std::to_string(n); }

}  // namespace

uint64_t SectionMap::Here() const { return m_sink.Position(); }

MapItem SectionMap::ItemAt(MapItem::Kind kind, uint64_t length) const {
  MapItem item;
  item.kind = kind;
  item.section = m_section;
  item.offset = Here();
  item.length = length;
  return item;
}

bool SectionMap::Map(int section, uint8_t systemId) {
  m_section = section;
  m_ntfs = systemId == kSystemIdNtfs;
  m_ended = false;
  m_paths.BeginSection(section);
  m_file.clear();
  m_takesData = false;
  if (!MapSectionHeader()) return false;
  while (!m_ended) {
    if (m_ntfs ? MapNtfsRecord() : MapFatRecord()) continue;
    DropPieces("long name without an entry");
    SkipDamage();
    if (Here() < m_end) continue;
    m_ended = true;
  }
  return true;
}

bool SectionMap::MapSectionHeader() {
  const uint64_t start = Here();
  if (SectionMarksAt(start) == 0) {
    const uint64_t next = FindSection(start);
    if (next == m_end) return false;
    m_sink.Gap(next, "", "",
               "section " + Count(static_cast<uint64_t>(m_section)) + " does not begin at " +
                   Hex(start) + " but at " + Hex(next));
  }
  MapItem area = ItemAt(MapItem::Kind::SectionHeader, kSectorAreaSize);
  const auto mark = m_window.At(area.offset, 3);
  area.text = "section " + Count(static_cast<uint64_t>(m_section)) + ", sector area";
  if (mark.size() < 3 || mark[0] != 0xAB || mark[1] != 0xCD) {
    area.problem = "sector area does not begin with AB CD";
  }
  m_sink.Add(area);
  MapItem header = ItemAt(MapItem::Kind::SectionHeader, kPartitionHeaderSize - kSectorAreaSize);
  header.text = "section " + Count(static_cast<uint64_t>(m_section)) +
                (m_ntfs ? ", header of NTFS records" : ", header of FAT records");
  const auto record = m_window.At(header.offset, kAreaHeader.size());
  if (!std::equal(record.begin(), record.end(), kAreaHeader.begin(), kAreaHeader.end())) {
    header.problem = "record is not one of type 23 and " + Count(kPartitionPayload) + " bytes";
  }
  m_sink.Add(header);
  return true;
}

void SectionMap::MapTrailer() {
  MapItem item = ItemAt(MapItem::Kind::Trailer, kPartitionTrailerSize);
  item.text = "end of section " + Count(static_cast<uint64_t>(m_section));
  const auto bytes = m_window.At(item.offset, kPartitionTrailerSize);
  if (bytes.size() < kPartitionTrailerSize) {
    item.length = bytes.size();
    item.problem = "trailer is cut short: " + Count(bytes.size()) + " of " +
                   Count(kPartitionTrailerSize) + " bytes";
  } else if (std::any_of(bytes.end() - kDirRecordSize, bytes.end(),
                         [](unsigned char b) { return b != 0; })) {
    item.problem = "last 40 bytes of the trailer are not zero";
  }
  m_sink.Add(item);
  m_ended = true;
}

// Everything up to the next record that can be told for one is damage.
void SectionMap::SkipDamage() {
  const uint64_t start = Here();
  const bool isInFile = m_ntfs || (m_takesData && !m_lastSeen);
  if (!isInFile) {
    const auto entry = m_paths.GoTo(start, start);
    m_file = entry ? m_paths.PathOf(entry, "") : m_paths.IsBelowTop() ? m_paths.FolderPath() : "";
  }
  if (start >= m_end) {
    MapItem item = ItemAt(MapItem::Kind::Gap, 0);
    item.path = m_file;
    item.problem = "section " + Count(static_cast<uint64_t>(m_section)) + " has no end";
    m_sink.Add(item);
    return;
  }
  const uint64_t next = m_ntfs ? FindNtfsRecord(start + 1) : FindFatRecord(start + 1);
  m_sink.Gap(next, m_file, "", "no record begins here; " + NothingKnown(next - start));
  m_takesData = false;
}

// How many of the two marks of a section header are there.
int SectionMap::SectionMarksAt(uint64_t offset) {
  if (offset + kPartitionHeaderSize > m_end) return 0;
  const auto area = m_window.At(offset, 2);
  const bool hasMark = area.size() == 2 && area[0] == 0xAB && area[1] == 0xCD;
  const auto bytes = m_window.At(offset + kSectorAreaSize, kAreaHeader.size());
  const bool hasRecord =
      std::equal(bytes.begin(), bytes.end(), kAreaHeader.begin(), kAreaHeader.end());
  return (hasMark ? 1 : 0) + (hasRecord ? 1 : 0);
}

uint64_t SectionMap::FindSection(uint64_t offset) {
  while (offset + kPartitionHeaderSize <= m_end) {
    const auto bytes = m_window.At(offset + kSectorAreaSize, FileWindow::kSize / 2);
    const auto found =
        std::search(bytes.begin(), bytes.end(), kAreaHeader.begin(), kAreaHeader.end());
    offset += static_cast<uint64_t>(found - bytes.begin());
    if (found == bytes.end()) {
      if (bytes.size() < kAreaHeader.size()) return m_end;
      offset -= kAreaHeader.size() - 1;
    } else if (SectionMarksAt(offset) == 2) {
      return offset;
    } else {
      ++offset;
    }
  }
  return m_end;
}

}  // namespace capsule::host
