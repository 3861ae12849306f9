// No byte of the image is taken by two entries: what all take together is never more than the image
// holds, so that an index cannot have the same records read again and again.
#include "capsule/host/tree/ntfs_section.h"

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/partition/ntfs_format.h"

namespace capsule::host {

bool NtfsSection::Read(uint32_t offset) {
  const auto header = NtfsRecordAt(m_window, offset, m_limit);
  if (header && header->RecordType == kNtfsEnd) return false;
  m_isRoot = !m_hasRoot;
  if (!m_isRoot && !TakePlace()) return false;
  const std::string place = "record at " + Hex(offset);
  if (!header) Fail(offset, place + ": no record of an NTFS section");
  if (!BeginsNtfsEntry(header->RecordType)) {
    Fail(offset,
         place + ": type is " + std::to_string(header->RecordType) + " where an entry begins");
  }
  m_entry = ReadNtfsEntryFront(m_window, offset, m_limit, m_compressed);
  m_taken += m_entry.end - offset;
  if (!m_entry.problem.empty()) Fail(offset, m_entry.problem);
  if (m_taken > m_limit) Fail(offset, place + ": belongs to several entries");
  m_depth = m_isRoot ? 0 : m_missing.size() - 1;
  m_hasRoot = true;
  if (m_isRoot || m_entry.isDirectory) m_missing.push_back(m_entry.children);
  return true;
}

bool NtfsSection::TakePlace() {
  while (!m_missing.empty() && m_missing.back() == 0) m_missing.pop_back();
  if (m_missing.empty()) return false;
  --m_missing.back();
  return true;
}

void NtfsSection::Fail(uint32_t offset, const std::string& what) const {
  throw Error(m_image,
              "folders of partition " + std::to_string(m_partition) + " cannot be read: " + what,
              offset);
}

}  // namespace capsule::host
