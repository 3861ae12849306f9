// Index records: whatever is taken, written again and taken again is the same.
#include <cstdint>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/platform/byte_reader.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using capsule::IndexRecord;
  using capsule::fuzz::Require;
  capsule::platform::ByteReader reader({data, size});
  std::vector<unsigned char> written;
  size_t taken = 0;
  while (reader.Remaining() > 0) {
    const IndexRecord record = capsule::TakeIndexRecord(reader);
    if (!reader.Ok()) break;
    taken = reader.Position();
    capsule::AppendIndexRecord(record, &written);
  }
  Require(written == std::vector<unsigned char>(data, data + taken), "records keep their bytes");
  return 0;
}
