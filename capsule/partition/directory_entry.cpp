#include "capsule/partition/directory_entry.h"

#include <cstdio>

#include "capsule/partition/ntfs_file.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/host_view.h"

namespace capsule {

CString CapsuleDirectoryEntry::m_strPreviousCapFilePath;

CapsuleDirectoryEntry::CapsuleDirectoryEntry() { m_Record.Owner = this; }

CapsuleDirectoryEntry::~CapsuleDirectoryEntry() = default;

_ShortDirEntry& CapsuleDirectoryEntry::EntryFor(DirectoryType t) {
  return t == DirTypeFat16 ? m_Record.FirstEntry : m_Record.OtherEntry;
}

const _ShortDirEntry& CapsuleDirectoryEntry::EntryInUse() const {
  return m_DirectoryType == DirTypeFat16 ? m_Record.FirstEntry : m_Record.OtherEntry;
}

CString& CapsuleDirectoryEntry::ShortName(const char* entry) {
  if (entry == nullptr) return m_strShortName;
  const CString name(entry, 11);
  m_strShortName = name.substr(0, 8) + "." + name.substr(8);
  return m_strShortName;
}

CString& CapsuleDirectoryEntry::ShortName(DirectoryType t) {
  return ShortName(static_cast<const char*>(static_cast<const void*>(&EntryFor(t))));
}

CString& CapsuleDirectoryEntry::ShortName() { return m_strShortName; }

CapsuleBuffer& CapsuleDirectoryEntry::LongFileName() { return m_LongFileName; }

int CapsuleDirectoryEntry::operator==(const CString& s) const {
  return s == m_strShortName ? 1 : 0;
}

void CapsuleDirectoryEntry::PrintEntryName(const char* entry) {
  std::printf("Attribute is 0x%x, Name is %s\n",
              static_cast<unsigned>(m_Record.OtherEntry.Attribute), ShortName(entry).c_str());
}

int CapsuleDirectoryEntry::IsEmpty() const { return EntryInUse().Name[0] == 0 ? 1 : 0; }

int CapsuleDirectoryEntry::IsDirectory() const {
  return EntryInUse().Attribute & kDirectoryAttribute;
}

int CapsuleDirectoryEntry::GetAttribute() const { return EntryInUse().Attribute; }

uint32_t CapsuleDirectoryEntry::FileSize() const { return EntryInUse().FileSize; }

int CapsuleDirectoryEntry::CompressedLength() const { return m_Record.Header.Length; }

int CapsuleDirectoryEntry::NTFSIsDirectory() const { return m_nDirectoryFlag; }

CapsuleDirectoryEntry::DirectoryType CapsuleDirectoryEntry::GetDirectoryType() const {
  return m_DirectoryType;
}

void CapsuleDirectoryEntry::PopulateOtherStructure(DirectoryType t) {
  _ShortDirEntry& other = t == DirTypeFat16 ? m_Record.OtherEntry : m_Record.FirstEntry;
  other = EntryFor(t);
}

void CapsuleDirectoryEntry::RemoveCPtrArray() { m_LongEntries.clear(); }

void CapsuleDirectoryEntry::SetFileBlock(CapsuleFileBlock* block) { m_pParentFileBlock = block; }

CapsuleFileBlock* CapsuleDirectoryEntry::GetParentFileBlockPtr() const {
  return m_pParentFileBlock;
}

void CapsuleDirectoryEntry::SetLastDirectoryEntry(int value) { m_nLastDirectoryEntry = value; }

int CapsuleDirectoryEntry::GetCurEntry() const { return m_nCurEntry; }

void CapsuleDirectoryEntry::IncCurEntry() { ++m_nCurEntry; }

}  // namespace capsule
