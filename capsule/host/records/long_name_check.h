// Tells whether the long name of a record group can be believed.
#pragma once

#include <span>
#include <string>

#include "capsule/partition/entry_group.h"

namespace capsule::host {

// What is wrong with the long name of a group that is whole, or nothing.
std::string JudgeLongName(const EntryGroup& group);

// What is wrong with the long name in `records`, or nothing. They are all the records of an entry
// whose short entry is `entry`.
std::string JudgeLongName(std::span<const unsigned char> records, const _ShortDirEntry& entry);

}  // namespace capsule::host
