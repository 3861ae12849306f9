// MapSink passes the items of a map on and keeps count of which bytes they cover.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "capsule/host/map_item.h"

namespace capsule::host {

class MapSink {
 public:
  MapSink(uint64_t fileBytes, const std::function<void(const MapItem&)>& take) : m_take(take) {
    m_summary.fileBytes = fileBytes;
  }

  // In front of an item that does not begin where the last one ended comes a gap, behind one that
  // begins before that an overlap.
  void Add(const MapItem& item);

  // Bytes from the end of the last item up to `offset` that are nothing.
  void Gap(uint64_t offset, const std::string& path, const std::string& text,
           const std::string& problem);

  // The end of what has been covered so far.
  uint64_t Position() const { return m_position; }
  uint64_t FileBytes() const { return m_summary.fileBytes; }
  MapSummary& Summary() { return m_summary; }

 private:
  void Pass(const MapItem& item);

  const std::function<void(const MapItem&)>& m_take;
  MapSummary m_summary;
  uint64_t m_position = 0;
};

// "N bytes belong to nothing".
std::string NothingKnown(uint64_t bytes);

}  // namespace capsule::host
