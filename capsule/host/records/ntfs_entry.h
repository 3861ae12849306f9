// What begins an entry of an NTFS section: the FILE records of a file or folder and, of a folder,
// its index blocks, read where they lie.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/host/file/file_window.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/partition/directory_records.h"
#include "capsule/partition/ntfs_records.h"

namespace capsule::host {

struct NtfsEntry {
  bool isDirectory = false;
  std::string name;  // UTF-8
  std::string shortName;
  _ShortDirEntry entry{};          // times, attributes and size as in FAT-style sections
  std::vector<uint32_t> parents;   // references to the folders that its names are in
  std::optional<uint32_t> number;  // what references to it are, where it is stated
  uint64_t children = 0;           // of a folder, as its index counts them
  uint64_t dataOffset = 0;         // behind its FILE record
  uint64_t end = 0;                // behind its last record
  std::string problem;             // what is wrong with one of its records
};

// Whether it is one of the files that NTFS itself keeps, whose data writers leave out.
inline bool IsNtfsOwnFile(std::string_view name, bool isInRoot) {
  return isInRoot && name.starts_with('$');
}

// The entry whose first record, of type 102 or 104, is at `offset`; nothing from `limit` on is
// taken for its own. Throws host::Error when the first record is damaged.
NtfsEntry ReadNtfsEntry(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                        const std::string& image);

// Reads the entry as far as needed to tell what it is: of a file, no record behind those that hold
// its attributes. An entry whose first record is damaged has a problem, and ends at `offset`.
NtfsEntry ReadNtfsEntryFront(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed);

// The header at `offset`, or none when no record that fits is there.
std::optional<_NTFSMiniHeader> NtfsRecordAt(FileWindow& window, uint64_t offset, uint64_t limit);

// Where records of types that are not known end, which are stepped over: one or more of them, from
// `offset` on, that lead to a record that is known, or to `limit`. `offset` itself when none begins
// there. A record that holds FILE records or index blocks is none of them: its type is damaged.
// `decoder`: as behind the unit before.
uint64_t EndOfOtherNtfsRecords(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                               const UnitDecoder& decoder);

// Where the further FILE records of an entry that begin at `offset` end; `offset` without any.
uint64_t SkipNtfsCompanions(FileWindow& window, uint64_t offset, uint64_t limit);

// Decodes the payload of a record into `out`; false when it does not hold what its header states.
bool DecodeNtfsPayload(const _NTFSMiniHeader& header, std::span<const unsigned char> payload,
                       bool compressed, UnitDecoder& decoder, std::vector<unsigned char>* out);

}  // namespace capsule::host
