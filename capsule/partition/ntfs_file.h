// What FILE records and index blocks say of one file or folder, as pure functions and a collector
// of their facts.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "capsule/partition/directory_records.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/ntfs_records.h"

namespace capsule {

// Takes the records of one file or folder in their order, as often as there are some:
//
//   NtfsFile file;
//   file.TakeRecords(records, isDirectory, &entry);
//   file.TakeIndexBlocks(blocks);  // of a folder
class NtfsFile {
 public:
  // Takes FILE records that lie one behind the other, and restores their displaced bytes in place;
  // less than a record at the end is left alone. What they tell of times, attributes, size and
  // short name goes into `entry`, the rest of which stays. Returns the names that they hold.
  std::vector<NtfsFileName> TakeRecords(std::span<unsigned char> records, bool isDirectory,
                                        _ShortDirEntry* entry);

  // A name of the file. One that users of short names see goes into `entry`, cut to its form.
  void TakeName(const NtfsFileName& name, _ShortDirEntry* entry);

  // Index blocks of a folder whose FILE records were taken.
  void TakeIndexBlocks(std::span<unsigned char> blocks);

  // Notes a child by the low 32 bits of the reference to it, once.
  void TakeChild(uint32_t reference) { m_children.insert(reference); }

  // Of its names the one with the full spelling that users see first; empty without one.
  const std::u16string& Name() const { return m_name; }

  // Whether the short name of the entry is a name of the file, not just made from a longer one.
  bool HasShortName() const { return m_hasShortName; }

  // References to the folders that its names are in.
  const std::vector<uint32_t>& Parents() const { return m_parents; }

  // What references to the file are, where its record states it.
  std::optional<uint32_t> Number() const { return m_number; }

  // How many different children a folder has.
  size_t ChildCount() const { return m_children.size(); }

  // Whether some of its attributes lie in further FILE records.
  bool HasAttributeList() const { return m_hasAttributeList; }

 private:
  void TakeAttribute(const NtfsAttribute& attribute, bool isDirectory, _ShortDirEntry* entry,
                     std::vector<NtfsFileName>* names);

  std::u16string m_name;
  int m_nameRank = 0;
  bool m_hasShortName = false;
  bool m_hasAttributeList = false;
  std::optional<uint32_t> m_number;
  std::vector<uint32_t> m_parents;
  std::set<uint32_t> m_children;  // ordered, so that no choice of references makes it slow
  NtfsIndexUse m_indexUse;
};

// Whether short names have names of this name space.
bool IsShortNameSpace(uint8_t nameSpace);

// Puts times and attributes into the entry of a file or folder.
void PutStandardInformation(const _StandardInformation& info, bool isDirectory,
                            _ShortDirEntry* entry);

// What a file holds when that lies in its FILE record, whose displaced bytes are restored in place;
// none when it lies elsewhere.
std::optional<std::span<const unsigned char>> ResidentData(
    std::span<unsigned char, kFileRecordSize> record);

}  // namespace capsule
