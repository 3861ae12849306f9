// Sections of NTFS records: an entry reaches from its FILE record to the next that begins one.
#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

void SectionScanner::ScanNtfs(SectionItem* item) {
  const auto header = NtfsRecordAt(m_window, m_position, m_fileLength);
  if (!header) Fail("record", m_position, "no record of an NTFS section");
  item->section = m_nextSection - 1;
  item->isNtfs = true;
  if (header->RecordType == kNtfsEnd) return ScanNtfsEnd(item, header->Length);
  if (!BeginsNtfsEntry(header->RecordType)) {
    Fail("record", m_position,
         "type is " + std::to_string(header->RecordType) + " where an entry begins");
  }
  m_ntfsEntry = ReadNtfsEntry(m_window, m_position, std::min(m_fileLength, m_itemLimit),
                              m_header.compressed, m_name);
  m_position = m_ntfsEntry.end;
  item->dataOffset = m_ntfsEntry.dataOffset;
  item->entry = m_ntfsEntry.entry;
  item->name = m_ntfsEntry.name;
  item->shortName = m_ntfsEntry.shortName;
  item->problem = m_ntfsEntry.problem;
  item->kind = m_ntfsEntry.isDirectory ? SectionItem::Kind::Directory : SectionItem::Kind::File;
  PlaceNtfs(item);
}

void SectionScanner::PlaceNtfs(SectionItem* item) {
  if (m_ntfsFolders.Depth() == 0) {
    const bool isFirst = item->offset == m_sectionStart + kPartitionHeaderSize;
    item->isRoot = m_ntfsEntry.isDirectory && (isFirst || m_ntfsEntry.name == ".");
    if (item->isRoot) {
      item->name.clear();
      return m_ntfsFolders.Open(m_ntfsEntry);
    }
    m_ntfsFolders.OpenLost(m_ntfsEntry);  // the root
  }
  const auto level = m_ntfsFolders.Find(m_ntfsEntry);
  item->isStray = !level;
  if (item->isStray) return;
  item->depth = *level;
  m_ntfsFolders.CloseTo(item->depth + 1);
  m_folders.LeaveTo(item->depth);
  item->path = PathOf(item->name);
  if (!m_ntfsEntry.isDirectory) return;
  m_ntfsFolders.Open(m_ntfsEntry);
  m_folders.Enter(item->name);
}

void SectionScanner::AdoptStray(const std::string& folder, SectionItem* item) {
  m_ntfsFolders.OpenLost(m_ntfsEntry);
  m_folders.Enter(folder);
  item->depth = m_folders.Depth();
  item->path = PathOf(item->name);
  if (!m_ntfsEntry.isDirectory) return;
  m_ntfsFolders.Open(m_ntfsEntry);
  m_folders.Enter(item->name);
}

void SectionScanner::OpenLost(const std::string& folder, size_t depth) {
  m_ntfsFolders.CloseTo(depth + 1);
  m_folders.LeaveTo(depth);
  m_ntfsFolders.OpenLost();
  m_folders.Enter(folder);
}

void SectionScanner::ScanNtfsEnd(SectionItem* item, uint32_t recordLength) {
  item->kind = SectionItem::Kind::NtfsEnd;
  m_position += kNtfsHeaderSize + uint64_t{recordLength};
  item->dataOffset = m_position;
  m_inSection = false;
  if (m_fileLength - m_position < kPartitionTrailerSize) return;
  const _MiniHeader header = PeekHeader(m_position, "section trailer");
  const bool isTrailer = header.Type == kRecordPartition && header.Length == kPartitionPayload;
  if (isTrailer) m_position += kPartitionTrailerSize;
}

}  // namespace capsule::host
