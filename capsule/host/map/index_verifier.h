// IndexVerifier compares an index with the image that it is for.
//
// 1. Everything that begins an entry is told before the first record of the index.
// 2. Check values are computed over no more than four times the file: records that cover the same
//    bytes again and again cost no more than that. Those of the sections and items are handed out
//    to be compared, since that takes long and depends on nothing else.
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

// Bytes of an image for which its index has a check value.
struct CheckedRegion {
  uint64_t begin = 0;
  uint64_t end = 0;
  std::string stated;  // the check value
  const char* what = "";
};

// What is wrong with the check value of a region, or nothing. Throws Error when the image cannot be
// read.
std::string JudgeRegion(FileWindow& window, const CheckedRegion& region);

class IndexVerifier {
 public:
  using Report = std::function<void(uint64_t offset, const std::string& path, std::string reason)>;
  using Compare = std::function<void(CheckedRegion region, const std::string& path)>;

  IndexVerifier(FileWindow& window, uint64_t fileBytes, Report report, Compare compare)
      : m_window(window),
        m_fileBytes(fileBytes),
        m_budget(4 * fileBytes),
        m_report(std::move(report)),
        m_compare(std::move(compare)) {}

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

  FileWindow& m_window;
  uint64_t m_fileBytes;
  uint64_t m_budget;
  Report m_report;
  Compare m_compare;
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
