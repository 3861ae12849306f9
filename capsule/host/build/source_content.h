// The content of an item to insert, and what can go wrong with it.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/host/build/source_walk.h"

namespace capsule::host {

// Fills `out` with the bytes of a file from `offset` on. What went wrong, or nothing. Throws
// ShortageError, and what the host's own bytes throw beside Error. Many threads may read an item.
std::string ReadSource(const SourceItem& item, uint64_t offset, std::span<unsigned char> out);

// What has become of an item since it was opened, or nothing: a file that is written to meanwhile
// may never have had the content that was read.
std::string ChangeOf(const SourceItem& item);

}  // namespace capsule::host
