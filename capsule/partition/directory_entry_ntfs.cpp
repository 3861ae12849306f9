// NTFS FILE records become the same entry that FAT-style sections give.
#include <array>
#include <memory>
#include <span>

#include "capsule/partition/directory_entry.h"
#include "capsule/partition/ntfs_file.h"
#include "capsule/platform/file.h"

namespace capsule {

void CapsuleDirectoryEntry::FillDirHeader(_NTFSMiniHeader h) {
  m_Record.Header = ToMiniHeader(h);
  m_Record.Header.Flag = 0;
}

int CapsuleDirectoryEntry::ReadNtfsHeader(int fd, int offset) {
  std::array<unsigned char, kNtfsHeaderSize> bytes;
  if (platform::ReadAt(fd, bytes.data(), bytes.size(), offset) !=
      static_cast<int64_t>(bytes.size())) {
    return -1;
  }
  ForgetNtfsEntry();
  FillDirHeader(DecodeNtfsHeader(bytes));
  if (m_Record.Header.Type == kNtfsDirectoryRecord) m_nDirectoryFlag = 1;
  return 0;
}

// FILE records add to what the entry holds, so it must hold nothing of another.
void CapsuleDirectoryEntry::ForgetNtfsEntry() {
  m_Record.FirstEntry = {};
  m_Record.OtherEntry = {};
  m_Record.LongNameLength = 0;
  m_LongFileName.Flush();
  m_strShortName.clear();
  m_nDirectoryFlag = 0;
  m_nCurEntry = 0;
  m_pNtfsFile.reset();
}

NtfsFile& CapsuleDirectoryEntry::OwnNtfsFile() {
  if (!m_pNtfsFile) m_pNtfsFile = std::make_unique<NtfsFile>();
  return *m_pNtfsFile;
}

bool CapsuleDirectoryEntry::HasAttributeList() const {
  return m_pNtfsFile && m_pNtfsFile->HasAttributeList();
}

const std::u16string& CapsuleDirectoryEntry::NtfsFullName() const {
  static const std::u16string none;
  return m_pNtfsFile ? m_pNtfsFile->Name() : none;
}

int CapsuleDirectoryEntry::GetNumEntries() const {
  return m_pNtfsFile ? static_cast<int>(m_pNtfsFile->ChildCount()) : 0;
}

int CapsuleDirectoryEntry::IsShortFileName(unsigned char ns) {
  return IsShortNameSpace(ns) ? 1 : 0;
}

void CapsuleDirectoryEntry::NTFSAddEntry(long ref) {
  OwnNtfsFile().TakeChild(static_cast<uint32_t>(ref));
}

void CapsuleDirectoryEntry::PutStdInfoIntoDirEntry(const _StandardInformation* si) {
  if (si != nullptr) PutStandardInformation(*si, m_nDirectoryFlag != 0, &m_Record.OtherEntry);
}

void CapsuleDirectoryEntry::PutFileNameIntoDirEntry(const _FileName* fn, int index) {
  if (fn == nullptr) return;
  NtfsFileName name{.nameSpace = fn->Namespace};
  const auto* bytes = static_cast<const unsigned char*>(static_cast<const void*>(fn));
  DecodeFileName({bytes, sizeof *fn + size_t{fn->NameLength} * 2}, &name);
  OwnNtfsFile().TakeName(name, &m_Record.OtherEntry);
  KeepName(name, index);
}

void CapsuleDirectoryEntry::KeepName(const NtfsFileName& name, int index) {
  if (IsShortFileName(name.nameSpace) != 0) {
    if (index == 0) m_Record.LongNameLength = 0;
    ShortName(DirTypeNtfs);
    return;
  }
  m_Record.LongNameLength = static_cast<int32_t>(name.units.size());
  std::vector<unsigned short> units(name.units.begin(), name.units.end());
  FormatLongFileName(units.data(), static_cast<unsigned char>(units.size()));
}

void CapsuleDirectoryEntry::AddIndexBlocks(std::span<unsigned char> blocks) {
  OwnNtfsFile().TakeIndexBlocks(blocks);
}

void CapsuleDirectoryEntry::FileRecordtoDirectoryEntry(void* records, long size) {
  if (records == nullptr || size < static_cast<long>(kFileRecordSize)) return;
  int index = 0;
  const std::span all(static_cast<unsigned char*>(records), static_cast<size_t>(size));
  for (const NtfsFileName& name :
       OwnNtfsFile().TakeRecords(all, m_nDirectoryFlag != 0, &m_Record.OtherEntry)) {
    KeepName(name, index++);
  }
  PopulateOtherStructure(DirTypeNtfs);
}

}  // namespace capsule
