// Record groups of entries: the class interface takes the same records for one as EntryGroup, and
// reads the same of them; a long name without a fault is one that writers make of its characters.
#include <cstdint>

#include "capsule/host/records/long_name_check.h"
#include "capsule/partition/directory_entry.h"
#include "fuzz/memory_file.h"

namespace {

using capsule::CapsuleDirectoryEntry;
using capsule::EntryGroup;
using capsule::kDirRecordSize;
using capsule::fuzz::Require;

// Takes the group at the front of `data`. Its bytes, or 0 when there is none.
size_t TakeGroup(std::span<const uint8_t> data, EntryGroup* group) {
  for (size_t size = kDirRecordSize; size <= data.size(); size += kDirRecordSize) {
    const auto record = data.first(size).last<kDirRecordSize>();
    if (group->HasLongName() && record[0] != capsule::kRecordDirectory) return 0;
    const auto taken = group->Take(record.last<capsule::kDirEntrySize>());
    Require(group->Pieces() * kDirRecordSize <= size, "a piece is a record");
    if (taken != EntryGroup::Taken::Piece) return taken == EntryGroup::Taken::Entry ? size : 0;
  }
  return 0;
}

void CompareWithClass(std::span<const uint8_t> data, const EntryGroup& group, size_t groupSize) {
  const capsule::fuzz::MemoryFile file(data);
  for (const auto type :
       {CapsuleDirectoryEntry::DirTypeFat16, CapsuleDirectoryEntry::DirTypeFat32}) {
    CapsuleDirectoryEntry entry;
    int end = 0;
    const bool isRead = entry.Read(type, file.Descriptor(), 0, &end) == 0;
    Require(isRead == (groupSize > 0), "both take the same records for a group");
    Require(end >= 0 && static_cast<size_t>(end) <= data.size(), "a group ends inside the file");
    if (!isRead) continue;
    Require(static_cast<size_t>(end) == groupSize, "both end at the same record");
    Require((entry.IsEmpty() != 0) == (group.Role() == capsule::EntryRole::Closing),
            "both find the same zero entries");
    const auto* name = reinterpret_cast<const uint8_t*>(entry.LongFileName().GetRead());
    const std::span units(name, static_cast<size_t>(entry.LongFileName().Size()));
    Require(capsule::LongNameToBytes(units) == group.LongName(), "both read the same long name");
  }
}

void JudgeName(const EntryGroup& group) {
  if (!group.HasLongName() || !capsule::host::JudgeLongName(group).empty()) return;
  const size_t length = group.LongUnits().size();
  // The zero that ends a name may have a piece of its own.
  Require(length / capsule::kPieceUnits + 1 == group.Pieces() ||
              length == capsule::kPieceUnits * group.Pieces(),
          "as many pieces as the name needs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  EntryGroup group;
  const size_t groupSize = TakeGroup({data, size}, &group);
  CompareWithClass({data, size}, group, groupSize);
  if (groupSize > 0) JudgeName(group);
  return 0;
}
