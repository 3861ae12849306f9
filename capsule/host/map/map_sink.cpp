// The position only grows. An item in front of it is passed on all the same, and what it covers a
// second time becomes an overlap, so no byte is counted twice.
#include "capsule/host/map/map_sink.h"

#include <algorithm>

#include "capsule/host/file/reason.h"

namespace capsule::host {

std::string NothingKnown(uint64_t bytes) {
  return std::to_string(bytes) + (bytes == 1 ? " byte belongs" : " bytes belong") + " to nothing";
}

void MapSink::Add(const MapItem& item) {
  if (item.offset > m_position) {
    Gap(item.offset, "", "", NothingKnown(item.offset - m_position));
  }
  const uint64_t end = std::min(item.offset + item.length, FileBytes());
  const uint64_t before = m_position;
  m_position = std::max(before, end);
  m_summary.accountedBytes += m_position - before;
  Pass(item);
  if (item.offset >= before || end <= item.offset) return;
  MapItem overlap;
  overlap.kind = MapItem::Kind::Overlap;
  overlap.section = item.section;
  overlap.offset = item.offset;
  overlap.length = std::min(end, before) - item.offset;
  overlap.path = item.path;
  overlap.problem =
      std::string(MapKindName(item.kind)) + " lies over what was taken up to " + Hex(before);
  Pass(overlap);
}

void MapSink::Gap(uint64_t offset, const std::string& path, const std::string& text,
                  const std::string& problem) {
  offset = std::min(offset, FileBytes());
  if (offset <= m_position) return;
  MapItem gap;
  gap.offset = m_position;
  gap.length = offset - m_position;
  gap.path = path;
  gap.text = text;
  gap.problem = problem;
  m_position = offset;
  Pass(gap);
}

void MapSink::Pass(const MapItem& item) {
  ++m_summary.items;
  m_summary.problems += item.problem.empty() ? 0 : 1;
  m_take(item);
}

}  // namespace capsule::host
