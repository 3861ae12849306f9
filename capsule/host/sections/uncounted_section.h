// A header whose count of partitions is damaged conceals sections.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// Where a section begins right behind those that the header tells of, which end at `end`; none when
// there is nothing to make one doubt the header.
std::optional<uint64_t> FindUncountedSection(const ImageFile& image, const SectionScanner& scanner,
                                             uint64_t end);

// The same for an image whose sections are stepped through here; none when they are damaged.
std::optional<uint64_t> FindUncountedSection(const ImageFile& image);

// What is wrong when there is one.
std::string UncountedReason(uint32_t sectionCount);

}  // namespace capsule::host
