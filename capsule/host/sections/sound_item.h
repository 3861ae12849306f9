// Tells whether an item that was found in a section can be believed.
#pragma once

#include <string>

#include "capsule/host/file/file_window.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// What is wrong with the long name of an item of a FAT-style section; nothing when it has none.
std::string JudgeLongName(FileWindow& window, const SectionItem& item);

}  // namespace capsule::host
