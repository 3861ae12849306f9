// NTFS FILE records become the same entry that FAT-style sections give.
#include <algorithm>
#include <array>
#include <memory>
#include <span>

#include "capsule/partition/directory_entry.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/byte_reader.h"
#include "capsule/platform/dos_time.h"
#include "capsule/platform/file.h"

namespace capsule {
namespace {

constexpr uint8_t kNamespacePosix = 0;
constexpr uint8_t kNamespaceWin32 = 1;
constexpr uint8_t kNamespaceDos = 2;
constexpr uint8_t kNamespaceWin32AndDos = 3;

bool DecodeStandardInformation(std::span<const unsigned char> value, _StandardInformation* info) {
  platform::ByteReader reader(value);
  info->Time0 = reader.U64();
  info->Time8 = reader.U64();
  info->Time16 = reader.U64();
  info->Opaque24 = reader.U64();
  info->Flags = reader.U32();
  return reader.Ok();
}

// Which of a file's names tells most: the one with its full spelling that users see first.
int NameRank(uint8_t nameSpace) {
  switch (nameSpace) {
    case kNamespaceWin32:
      return 4;
    case kNamespaceWin32AndDos:
      return 3;
    case kNamespacePosix:
      return 2;
    default:
      return 1;
  }
}

void PutPadded(std::u16string_view units, std::span<uint8_t> field) {
  for (size_t i = 0; i < field.size(); ++i) {
    field[i] = i < units.size() ? static_cast<uint8_t>(units[i]) : uint8_t{' '};
  }
}

// The first 12 characters, low bytes, split at the first '.' into 8 + 3.
void PutShortName(std::u16string_view units, _ShortDirEntry* entry) {
  constexpr size_t kExamined = 12;
  const std::u16string_view examined = units.substr(0, kExamined);
  const size_t dot = std::min(examined.find(u'.'), examined.size());
  PutPadded(examined.substr(0, dot), entry->Name);
  PutPadded(dot < examined.size() ? examined.substr(dot + 1) : u"", entry->Extension);
}

}  // namespace

void CapsuleDirectoryEntry::FillDirHeader(_NTFSMiniHeader h) {
  m_Record.Header.Type = static_cast<uint8_t>(h.RecordType);
  m_Record.Header.Flag = 0;
  m_Record.Header.Param = h.UncompressedLength;
  m_Record.Header.Length = h.Length;
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
  m_FileReferences.clear();
  m_KnownReferences.clear();
  m_nNumEntries = 0;
  m_nCurEntry = 0;
  m_pIndexUse = nullptr;
  m_bAttributeList = false;
  m_bNtfsShortName = false;
  m_FullName.clear();
  m_nFullNameRank = 0;
}

int CapsuleDirectoryEntry::IsShortFileName(unsigned char ns) {
  return ns != kNamespaceWin32 ? 1 : 0;
}

void CapsuleDirectoryEntry::NTFSAddEntry(long ref) {
  const auto reference = static_cast<uint32_t>(ref);
  if (!m_KnownReferences.insert(reference).second) return;
  m_FileReferences.push_back(reference);
  ++m_nNumEntries;
}

void CapsuleDirectoryEntry::PutStdInfoIntoDirEntry(const _StandardInformation* si) {
  if (si == nullptr) return;
  _ShortDirEntry& entry = m_Record.OtherEntry;
  const platform::DosDateTime creation = platform::ToDosDateTime(si->Time8);
  entry.CreationDate = creation.date;
  entry.CreationTime = creation.time;
  const platform::DosDateTime write = platform::ToDosDateTime(si->Time0);
  entry.WriteDate = write.date;
  entry.WriteTime = write.time;
  entry.LastAccessDate = platform::ToDosDateTime(si->Time16).date;

  constexpr uint8_t kMoreFlags = 0x80;
  uint32_t attribute = si->Flags & 0xFF;
  if (((si->Flags >> 8) & 0xFF) != 0) attribute |= kMoreFlags;
  if (m_nDirectoryFlag != 0) attribute |= kDirectoryAttribute;
  entry.Attribute = static_cast<uint8_t>(attribute);
}

void CapsuleDirectoryEntry::PutFileNameIntoDirEntry(const _FileName* fn, int index) {
  if (fn == nullptr) return;
  NtfsFileName name{.nameSpace = fn->Namespace};
  const auto* bytes = static_cast<const unsigned char*>(static_cast<const void*>(fn));
  DecodeFileName({bytes, sizeof *fn + size_t{fn->NameLength} * 2}, &name);
  PutName(name, index);
}

void CapsuleDirectoryEntry::PutName(const NtfsFileName& name, int index) {
  if (NameRank(name.nameSpace) > m_nFullNameRank) {
    m_nFullNameRank = NameRank(name.nameSpace);
    m_FullName = name.units;
  }
  if (IsShortFileName(name.nameSpace) != 0) {
    if (index == 0) m_Record.LongNameLength = 0;
    PutShortName(name.units, &m_Record.OtherEntry);
    m_bNtfsShortName = name.nameSpace == kNamespaceDos || name.nameSpace == kNamespaceWin32AndDos;
    ShortName(DirTypeNtfs);
    return;
  }
  m_Record.LongNameLength = static_cast<int32_t>(name.units.size());
  std::vector<unsigned short> units(name.units.begin(), name.units.end());
  FormatLongFileName(units.data(), static_cast<unsigned char>(units.size()));
}

void CapsuleDirectoryEntry::PutFileRecord(std::span<unsigned char, kFileRecordSize> record,
                                          int* nameCount) {
  UndoFileRecordFixups(record);
  if (m_pIndexUse == nullptr) m_pIndexUse = std::make_unique<NtfsIndexUse>();
  VisitAttributes(record, [&](const NtfsAttribute& attribute) {
    _StandardInformation info{};
    NtfsFileName name;
    m_pIndexUse->Take(attribute);
    if (attribute.type == kAttributeListType) m_bAttributeList = true;
    switch (attribute.type & 0xFFFF) {
      case kStandardInformationType:
        if (DecodeStandardInformation(attribute.NamedOffsetValue(), &info)) {
          PutStdInfoIntoDirEntry(&info);
        }
        break;
      case kFileNameType:
        if (DecodeFileName(attribute.NamedOffsetValue(), &name)) PutName(name, (*nameCount)++);
        break;
      case kDataType:
        if (attribute.nameLength == 0 && attribute.BeginsStream()) {
          m_Record.OtherEntry.FileSize = attribute.DataSize();
        }
        break;
      case kIndexRootType:
        VisitIndexRoot(attribute,
                       [this](uint32_t reference) { NTFSAddEntry(static_cast<long>(reference)); });
        break;
      default:
        break;
    }
    return true;
  });
}

void CapsuleDirectoryEntry::AddIndexBlocks(std::span<unsigned char> blocks) {
  VisitIndexBlocks(blocks, m_pIndexUse ? *m_pIndexUse : NtfsIndexUse(),
                   [this](uint32_t reference) { NTFSAddEntry(static_cast<long>(reference)); });
}

void CapsuleDirectoryEntry::FileRecordtoDirectoryEntry(void* records, long size) {
  if (records == nullptr || size < static_cast<long>(kFileRecordSize)) return;
  std::span<unsigned char> rest(static_cast<unsigned char*>(records), static_cast<size_t>(size));
  int nameCount = 0;
  while (rest.size() >= kFileRecordSize) {
    PutFileRecord(rest.first<kFileRecordSize>(), &nameCount);
    rest = rest.subspan(kFileRecordSize);
  }
  PopulateOtherStructure(DirTypeNtfs);
}

}  // namespace capsule
