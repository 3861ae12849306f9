// Shell patterns over bytes: `*`, `?` and `[...]`, the same in every locale.
#pragma once

#include <string>

namespace capsule::platform {

// Whether all of `text` matches `pattern`. With `isPath`, `*`, `?` and `[...]` do not match '/'.
bool MatchesGlob(const std::string& pattern, const std::string& text, bool isPath);

}  // namespace capsule::platform
