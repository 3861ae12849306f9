// FILE records of any bytes become an entry without leaving the record.
#include <cstdint>
#include <vector>

#include "capsule/partition/directory_entry.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  std::vector<unsigned char> records(data, data + size);
  capsule::CapsuleDirectoryEntry entry;
  entry.FileRecordtoDirectoryEntry(records.data(), static_cast<long>(records.size()));
  capsule::fuzz::Require(entry.GetNumEntries() <= static_cast<int>(size / 16),
                         "no more children than bytes to name them");
  return 0;
}
