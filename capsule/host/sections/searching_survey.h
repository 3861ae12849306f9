// A survey that finds its way without a checked index.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/host/sections/survey.h"
#include "capsule/host/sections/survey_outline.h"

namespace capsule::host {

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
