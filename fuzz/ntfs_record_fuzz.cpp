// FILE records of any bytes become the facts of a file, and an entry, without leaving the record.
#include <cstdint>
#include <vector>

#include "capsule/partition/directory_entry.h"
#include "capsule/partition/ntfs_file.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  std::vector<unsigned char> records(data, data + size);
  capsule::NtfsFile file;
  capsule::_ShortDirEntry found{};
  const auto names = file.TakeRecords(records, false, &found);
  capsule::fuzz::Require(file.ChildCount() <= size / 16,
                         "no more children than bytes to name them");
  capsule::fuzz::Require(file.Parents().size() == names.size(), "a folder for each name");
  records.assign(data, data + size);
  capsule::CapsuleDirectoryEntry entry;
  entry.FileRecordtoDirectoryEntry(records.data(), static_cast<long>(records.size()));
  capsule::fuzz::Require(entry.NtfsFullName() == file.Name() &&
                             entry.FileSize() == found.FileSize &&
                             entry.GetNumEntries() == static_cast<int>(file.ChildCount()),
                         "the entry of the class is what the records tell");
  records.assign(data, data + size);
  if (size < capsule::kFileRecordSize) return 0;
  const auto held = capsule::ResidentData(std::span(records).first<capsule::kFileRecordSize>());
  capsule::fuzz::Require(!held || held->size() <= capsule::kFileRecordSize,
                         "a record holds no more than its bytes");
  return 0;
}
