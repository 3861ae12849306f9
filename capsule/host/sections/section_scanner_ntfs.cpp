// Sections of NTFS records: an entry reaches from its FILE record to the next that begins one.
#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

void SectionScanner::ScanNtfs(SectionItem* item) {
  const auto header = NtfsRecordAt(m_Window, m_nPosition, m_nFileLength);
  if (!header) Fail("record", m_nPosition, "no record of an NTFS section");
  item->section = m_nNextSection - 1;
  item->isNtfs = true;
  if (header->RecordType == kNtfsEnd) return ScanNtfsEnd(item, header->Length);
  if (!BeginsNtfsEntry(header->RecordType)) {
    Fail("record", m_nPosition,
         "type is " + std::to_string(header->RecordType) + " where an entry begins");
  }
  m_NtfsEntry = ReadNtfsEntry(m_Window, m_nPosition, std::min(m_nFileLength, m_nItemLimit),
                              m_Header.compressed, m_strName);
  m_nPosition = m_NtfsEntry.end;
  item->dataOffset = m_NtfsEntry.dataOffset;
  item->entry = m_NtfsEntry.entry;
  item->name = m_NtfsEntry.name;
  item->shortName = m_NtfsEntry.shortName;
  item->problem = m_NtfsEntry.problem;
  item->kind = m_NtfsEntry.isDirectory ? SectionItem::Kind::Directory : SectionItem::Kind::File;
  PlaceNtfs(item);
}

void SectionScanner::PlaceNtfs(SectionItem* item) {
  if (m_NtfsFolders.Depth() == 0) {
    const bool isFirst = item->offset == m_nSectionStart + kPartitionHeaderSize;
    item->isRoot = m_NtfsEntry.isDirectory && (isFirst || m_NtfsEntry.name == ".");
    if (item->isRoot) {
      item->name.clear();
      return m_NtfsFolders.Open(m_NtfsEntry);
    }
    m_NtfsFolders.OpenLost(m_NtfsEntry);  // the root
  }
  const auto level = m_NtfsFolders.Find(m_NtfsEntry);
  item->isStray = !level;
  if (item->isStray) return;
  item->depth = *level;
  m_NtfsFolders.CloseTo(item->depth + 1);
  m_Folders.LeaveTo(item->depth);
  item->path = PathOf(item->name);
  if (!m_NtfsEntry.isDirectory) return;
  m_NtfsFolders.Open(m_NtfsEntry);
  m_Folders.Enter(item->name);
}

void SectionScanner::AdoptStray(const std::string& folder, SectionItem* item) {
  m_NtfsFolders.OpenLost(m_NtfsEntry);
  m_Folders.Enter(folder);
  item->depth = m_Folders.Depth();
  item->path = PathOf(item->name);
  if (!m_NtfsEntry.isDirectory) return;
  m_NtfsFolders.Open(m_NtfsEntry);
  m_Folders.Enter(item->name);
}

void SectionScanner::OpenLost(const std::string& folder, size_t depth) {
  m_NtfsFolders.CloseTo(depth + 1);
  m_Folders.LeaveTo(depth);
  m_NtfsFolders.OpenLost();
  m_Folders.Enter(folder);
}

void SectionScanner::ScanNtfsEnd(SectionItem* item, uint32_t recordLength) {
  item->kind = SectionItem::Kind::NtfsEnd;
  m_nPosition += kNtfsHeaderSize + uint64_t{recordLength};
  item->dataOffset = m_nPosition;
  m_bInSection = false;
  if (m_nFileLength - m_nPosition < kPartitionTrailerSize) return;
  const _MiniHeader header = PeekHeader(m_nPosition, "section trailer");
  const bool isTrailer = header.Type == kRecordPartition && header.Length == kPartitionPayload;
  if (isTrailer) m_nPosition += kPartitionTrailerSize;
}

}  // namespace capsule::host
