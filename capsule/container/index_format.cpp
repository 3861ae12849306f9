#include "capsule/container/index_format.h"

#include <algorithm>
#include <limits>

#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

void AppendLe16(uint16_t value, std::vector<unsigned char>* out) {
  out->resize(out->size() + sizeof value);
  platform::StoreLe16(&*(out->end() - sizeof value), value);
}

void AppendLe32(uint32_t value, std::vector<unsigned char>* out) {
  out->resize(out->size() + sizeof value);
  platform::StoreLe32(&*(out->end() - sizeof value), value);
}

}  // namespace

void AppendIndexRecord(const IndexRecord& record, std::vector<unsigned char>* out) {
  out->push_back(record.type);
  if (!HasIndexBody(record.type)) return;
  const size_t nameLength =
      std::min<size_t>(record.name.size(), std::numeric_limits<uint16_t>::max());
  AppendLe16(static_cast<uint16_t>(nameLength), out);
  out->insert(out->end(), record.name.begin(),
              record.name.begin() + static_cast<std::ptrdiff_t>(nameLength));
  AppendLe32(record.offset, out);
  AppendLe32(record.length, out);
}

IndexRecord TakeIndexRecord(platform::ByteReader& reader) {
  IndexRecord record;
  TakeIndexRecord(reader, &record);
  return record;
}

void TakeIndexRecord(platform::ByteReader& reader, IndexRecord* record) {
  record->type = reader.U8();
  record->name.clear();
  record->offset = 0;
  record->length = 0;
  if (!HasIndexBody(record->type)) return;
  const auto name = reader.Take(reader.U16());
  record->name.assign(name.begin(), name.end());
  record->offset = reader.U32();
  record->length = reader.U32();
}

}  // namespace capsule
