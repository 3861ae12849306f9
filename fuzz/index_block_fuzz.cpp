// Index blocks of any bytes are walked without leaving them.
#include <cstdint>
#include <vector>

#include "capsule/partition/ntfs_format.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<unsigned char> blocks(data, data + size);
  size_t references = 0;
  capsule::VisitIndexBlocks(blocks, capsule::NtfsIndexUse(), [&](uint32_t) { ++references; });
  capsule::fuzz::Require(references <= size, "every reference takes bytes");
  return 0;
}
