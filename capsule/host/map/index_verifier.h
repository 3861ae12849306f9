// IndexVerifier compares an index with the image that it is for.
//
// 1. Everything that begins an entry is told before the first record of the index.
// 2. Check values are computed over no more than four times the file: records that cover the same
//    bytes again and again cost no more than that.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "capsule/host/file/file_window.h"
#include "capsule/host/image_map.h"

namespace capsule::host {

class IndexVerifier {
 public:
  using Report = std::function<void(uint64_t offset, const std::string& path, std::string reason)>;

  IndexVerifier(FileWindow& window, uint64_t fileBytes, Report report)
      : m_window(window),
        m_fileBytes(fileBytes),
        m_budget(4 * fileBytes),
        m_report(std::move(report)) {}

  // Takes every item of the map.
  void Take(const MapItem& item);

  // Whether the index names the entry at `offset`, if there is an index.
  bool Names(uint64_t offset) const;
  bool NamesAll() const;

  uint64_t CheckValues() const { return m_checkValues; }

 private:
  void TakeStart(const MapItem& item);
  void TakeRecord(const MapItem& item);
  void TakeNote(const MapItem& item);
  void TakeRestart(const MapItem& item);
  bool StandsForUnused(const MapItem& item);
  void Mark(const std::vector<uint32_t>& places, std::vector<bool>* named, const MapItem& item);
  bool Read(uint64_t begin, uint64_t end,
            const std::function<void(std::span<const unsigned char>)>& take);

  FileWindow& m_window;
  uint64_t m_fileBytes;
  uint64_t m_budget;
  Report m_report;
  std::vector<uint32_t> m_entries;   // where they begin, ascending
  std::vector<uint32_t> m_closings;  // last bytes of trailers, which may be named
  std::vector<uint32_t> m_sections;
  std::vector<bool> m_namedEntries;
  std::vector<bool> m_namedClosings;
  std::vector<bool> m_namedSections;
  bool m_index = false;
  bool m_checked = false;
  uint64_t m_sectionsNamed = 0;
  uint64_t m_checkValues = 0;
  uint64_t m_lastTarget = 0;  // of the record that a check value may follow
  uint64_t m_lastEnd = 0;
  std::string m_lastPath;
};

}  // namespace capsule::host
