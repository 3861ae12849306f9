// Standard error, for messages that must not hold up the caller.
#pragma once

#include <string_view>

namespace capsule::platform {

// Writes `line` and a line end in one step, cut to 4096 bytes. Drops it when that would block, or
// when nobody can read it any more.
void WriteErrorLine(std::string_view line);

}  // namespace capsule::platform
