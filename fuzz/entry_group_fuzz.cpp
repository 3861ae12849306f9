// Record groups of entries: the class interface takes no more records than there are, and a long
// name that is not found wrong is one that writers make of its characters.
#include <algorithm>
#include <cstdint>

#include "capsule/host/records/long_name_check.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/partition/record_format.h"
#include "fuzz/memory_file.h"

namespace {

using capsule::CapsuleDirectoryEntry;
using capsule::fuzz::Require;

void ReadByClass(const uint8_t* data, size_t size) {
  const capsule::fuzz::MemoryFile file({data, size});
  for (const auto type :
       {CapsuleDirectoryEntry::DirTypeFat16, CapsuleDirectoryEntry::DirTypeFat32}) {
    CapsuleDirectoryEntry entry;
    int end = 0;
    if (entry.Read(type, file.Descriptor(), 0, &end) != 0) continue;
    Require(end >= 0 && static_cast<size_t>(end) <= size, "a group ends inside the file");
  }
}

void JudgeName(std::span<const uint8_t> group) {
  const auto last = group.last<capsule::kDirEntrySize>();
  if (!capsule::host::JudgeLongName(group, capsule::DecodeShortEntry(last)).empty()) return;
  const size_t pieces = group.size() / capsule::kDirRecordSize - 1;
  std::vector<uint8_t> units;
  for (size_t i = 0; i < pieces; ++i) {
    const auto piece = group.subspan(i * capsule::kDirRecordSize + capsule::kMiniHeaderSize);
    const auto name = capsule::LongNameUnits(piece.first<capsule::kDirEntrySize>());
    units.insert(units.end(), name.begin(), name.end());
  }
  const std::u16string name = capsule::DecodeLongName(units);
  // The zero that ends a name may have a piece of its own.
  Require(name.size() / 13 + 1 == pieces || name.size() == 13 * pieces,
          "as many pieces as the name needs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ReadByClass(data, size);
  const size_t whole = size / capsule::kDirRecordSize * capsule::kDirRecordSize;
  if (whole > 0 && whole <= 64 * capsule::kDirRecordSize) JudgeName({data, whole});
  return 0;
}
