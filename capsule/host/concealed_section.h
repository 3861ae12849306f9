// Tells whether an image has more sections than its header tells of.
#pragma once

#include <cstdint>
#include <string>

namespace capsule::host {

// What to say of a section that begins at `end`, right behind the last one that the header tells
// of, where the header's count may be damaged; nothing when there is none, or when what lies there
// must be left over from an older file. `name`: what errors call the image open on `descriptor`.
std::string ConcealedSection(int descriptor, const std::string& name, uint64_t end);

// The same where it is not known where the sections end: they are scanned. Nothing when they are
// damaged.
std::string ConcealedSection(int descriptor, const std::string& name);

}  // namespace capsule::host
