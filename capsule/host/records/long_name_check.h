// Tells whether the long name of a record group can be believed.
#pragma once

#include <span>
#include <string>

#include "capsule/partition/directory_records.h"

namespace capsule::host {

// `group`: all records of an entry whose short entry is `record`. What is wrong with its long-name
// records, or nothing.
std::string JudgeLongName(std::span<const unsigned char> group, const _ShortDirEntry& record);

// The same as JudgeLongName for how the name is filled up: `piecesLastFirst` are the name bytes of
// the pieces in on-disk order. Nothing but 0xFFFF follows the zero that ends a name, and only the
// last piece ends it.
std::string JudgeFilling(std::span<const unsigned char> piecesLastFirst);

}  // namespace capsule::host
