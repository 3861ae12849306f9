// A file has several names, and with many attributes several FILE records. Of the names the one
// with the full spelling counts, whichever comes first; sizes and times are those of the latest
// record that has some; children are counted once, though an index may name them in two places.
#include "capsule/partition/ntfs_file.h"

#include <algorithm>

#include "capsule/partition/record_format.h"
#include "capsule/platform/byte_reader.h"
#include "capsule/platform/dos_time.h"

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

// Which of a file's names tells most.
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

std::vector<NtfsFileName> NtfsFile::TakeRecords(std::span<unsigned char> records, bool isDirectory,
                                                _ShortDirEntry* entry) {
  std::vector<NtfsFileName> names;
  if (!m_number && records.size() >= kFileRecordSize) {
    m_number = StatedRecordNumber(records.first<kFileRecordSize>());
  }
  for (; records.size() >= kFileRecordSize; records = records.subspan(kFileRecordSize)) {
    const auto record = records.first<kFileRecordSize>();
    UndoFileRecordFixups(record);
    VisitAttributes(record, [&](const NtfsAttribute& attribute) {
      TakeAttribute(attribute, isDirectory, entry, &names);
      return true;
    });
  }
  return names;
}

void NtfsFile::TakeAttribute(const NtfsAttribute& attribute, bool isDirectory,
                             _ShortDirEntry* entry, std::vector<NtfsFileName>* names) {
  _StandardInformation info{};
  NtfsFileName name;
  m_indexUse.Take(attribute);
  if (attribute.type == kAttributeListType) m_hasAttributeList = true;
  switch (attribute.type & 0xFFFF) {
    case kStandardInformationType:
      if (DecodeStandardInformation(attribute.NamedOffsetValue(), &info)) {
        PutStandardInformation(info, isDirectory, entry);
      }
      break;
    case kFileNameType:
      if (!DecodeFileName(attribute.NamedOffsetValue(), &name)) break;
      TakeName(name, entry);
      names->push_back(std::move(name));
      break;
    case kDataType:
      if (attribute.nameLength == 0 && attribute.BeginsStream()) {
        entry->FileSize = attribute.DataSize();
      }
      break;
    case kIndexRootType:
      VisitIndexRoot(attribute, [this](uint32_t reference) { TakeChild(reference); });
      break;
    default:
      break;
  }
}

void NtfsFile::TakeName(const NtfsFileName& name, _ShortDirEntry* entry) {
  m_parents.push_back(name.parent);
  if (NameRank(name.nameSpace) > m_nameRank) {
    m_nameRank = NameRank(name.nameSpace);
    m_name = name.units;
  }
  if (!IsShortNameSpace(name.nameSpace)) return;
  PutShortName(name.units, entry);
  m_hasShortName = name.nameSpace == kNamespaceDos || name.nameSpace == kNamespaceWin32AndDos;
}

void NtfsFile::TakeIndexBlocks(std::span<unsigned char> blocks) {
  VisitIndexBlocks(blocks, m_indexUse, [this](uint32_t reference) { TakeChild(reference); });
}

bool IsShortNameSpace(uint8_t nameSpace) { return nameSpace != kNamespaceWin32; }

void PutStandardInformation(const _StandardInformation& info, bool isDirectory,
                            _ShortDirEntry* entry) {
  const platform::DosDateTime creation = platform::ToDosDateTime(info.Time8);
  entry->CreationDate = creation.date;
  entry->CreationTime = creation.time;
  const platform::DosDateTime write = platform::ToDosDateTime(info.Time0);
  entry->WriteDate = write.date;
  entry->WriteTime = write.time;
  entry->LastAccessDate = platform::ToDosDateTime(info.Time16).date;

  constexpr uint8_t kMoreFlags = 0x80;
  uint32_t attribute = info.Flags & 0xFF;
  if (((info.Flags >> 8) & 0xFF) != 0) attribute |= kMoreFlags;
  if (isDirectory) attribute |= kDirectoryAttribute;
  entry->Attribute = static_cast<uint8_t>(attribute);
}

std::optional<std::span<const unsigned char>> ResidentData(
    std::span<unsigned char, kFileRecordSize> record) {
  std::optional<std::span<const unsigned char>> data;
  UndoFileRecordFixups(record);
  VisitAttributes(record, [&](const NtfsAttribute& attribute) {
    if (attribute.type != kDataType || attribute.nameLength != 0) return true;
    if (!attribute.nonResident) data = attribute.ResidentValue();
    return false;
  });
  return data;
}

}  // namespace capsule
