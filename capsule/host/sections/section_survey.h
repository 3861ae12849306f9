// A survey goes through the sections of a damaged image as SectionScanner does, over damage as
// well: what is lost is told, what is left is handed out.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "capsule/host/index/index_check.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/sections/survey_outline.h"

namespace capsule::host {

// What a survey finds, in file order. The path of an item is not used: folders above it may be
// lost.
struct SurveyItem {
  SectionItem item;
  bool isPlaceholder = false;  // a folder whose own records are lost; what lies in it is not
  bool isGap = false;          // bytes that cannot be told; they are nothing
  bool hasData = false;        // of a gap: it has data block records
  uint64_t lost = 0;           // bytes at its end that may hide the records of other items
  std::string damage;          // of a file: what is wrong with its data
};

struct SurveyVisitor {
  std::function<void(const SurveyItem&)> onItem;
  std::function<void(uint64_t offset, const std::string& reason)> onDamage;
  std::function<void(uint64_t offset, const std::string& reason)>
      onFileDamage;                              // to its data alone
  std::function<void(uint64_t offset)> onStray;  // an NTFS entry whose folder is not there
};

// Goes by the records of a checked index, which say what lies where. `index` kept its records.
void SurveyByIndex(const ImageFile& image, const IndexContents& index,
                   const SurveyVisitor& visitor);

// How to search without a checked index.
struct SearchHints {
  uint64_t limit = 0;                       // where the sections end at the latest
  std::span<const uint32_t> sections = {};  // where an index says that they begin, ascending
  bool readsData = true;  // looks into data that seems to hold records: a length may be damaged
  const SurveyOutline* outline = nullptr;  // what an index says that lies between
};

// Without a checked index: goes on at the next place that looks like a record group. Memory: the
// items of one section.
void SurveyBySearch(const ImageFile& image, const SearchHints& hints, const SurveyVisitor& visitor);

}  // namespace capsule::host
