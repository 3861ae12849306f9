// Records are passed one by one up to the one that reaches the index, where readers stop, too.
// Without its mark an index is taken for one only when its first record, if any, has a known type.
#include "capsule/host/map/index_map.h"

#include <algorithm>

#include "capsule/container/stored_header.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/index_reader.h"

namespace capsule::host {
namespace {

void MapStart(FileWindow& window, uint64_t offset, MapSink& sink) {
  const auto bytes = window.At(offset, kIndexPreamble);
  MapItem item;
  item.kind = MapItem::Kind::IndexStart;
  item.offset = offset;
  item.length = bytes.size();
  const auto checkValue = DecodeIndexStart(bytes).checkValue;
  item.type = checkValue ? 1 : 0;
  item.target = checkValue.value_or(0);
  item.text = item.type == 1 ? "CI1, check value " + Hex(item.target) : "opaque, no check value";
  if (bytes.size() < kIndexPreamble) item.problem = "index is cut short";
  sink.Add(item);
}

const char* Describe(uint8_t type) {
  switch (type) {
    case kIndexGroupMark:
      return "group mark";
    case kIndexFile:
      return "item";
    case kIndexZeroEntry:
      return "zero entry or folder";
    case kIndexSection:
      return "section";
    case kIndexNote:
      return "note";
    default:
      return "nothing";
  }
}

MapItem ItemOf(const IndexRecord& record, uint64_t indexOffset, uint64_t fileBytes) {
  MapItem item;
  item.kind = MapItem::Kind::IndexRecord;
  item.type = record.type;
  item.text = "type " + std::to_string(record.type) + ", " + Describe(record.type);
  if (!HasIndexBody(record.type)) return item;
  item.target = record.offset;
  item.targetLength = record.length;
  item.name = record.name;
  const uint64_t end = item.target + item.targetLength;
  const auto restart = record.type == kIndexNote ? RestartOfName(record.name) : std::nullopt;
  if (restart) item.name = kRestartName;
  item.text += ": " + Hex(item.target) + " to " + Hex(end) +
               (item.name.empty() ? "" : ", \"" + item.name + "\"");
  if (restart) {
    item.text += ", decoding may begin here at " + std::to_string(restart->fileOffset) + " with " +
                 std::to_string(restart->historyLength) + " bytes of history";
  }
  if (item.target >= indexOffset || end > fileBytes) {
    item.problem = "points to " + Hex(item.target) + " to " + Hex(end) + ", which is not in the " +
                   "image's sections";
  }
  return item;
}

}  // namespace

bool LooksLikeIndex(FileWindow& window, uint64_t offset, uint64_t fileBytes) {
  if (PlaceOfIndex(offset, fileBytes) != IndexPlace::InFile) return false;
  const auto bytes = window.At(offset, kIndexPreamble + 1);
  if (bytes.size() <= kIndexPreamble || DecodeIndexStart(bytes).isMarked) return true;
  const uint8_t type = bytes[kIndexPreamble];
  return type == kIndexGroupMark || HasIndexBody(type);
}

void MapIndex(const ImageFile& image, FileWindow& window, uint64_t offset, MapSink& sink) {
  MapStart(window, offset, sink);
  IndexReader records(image, offset + kIndexPreamble);
  IndexRecord record;
  for (bool ended = false; !ended;) {
    const uint64_t start = records.Position();
    if (!records.TakeRecord(&record)) {
      MapItem cut;
      cut.kind = MapItem::Kind::IndexRecord;
      cut.offset = std::min(start, sink.FileBytes());
      cut.length = sink.FileBytes() - cut.offset;
      cut.problem = "index is cut short";
      sink.Add(cut);
      return;
    }
    MapItem item = ItemOf(record, offset, sink.FileBytes());
    item.offset = start;
    item.length = records.Position() - start;
    sink.Add(item);
    ended = HasIndexBody(record.type) && item.target + item.targetLength >= offset;
  }
}

}  // namespace capsule::host
