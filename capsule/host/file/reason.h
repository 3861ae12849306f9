// Words for messages.
#pragma once

#include <string>

#include "capsule/host/message_text.h"

namespace capsule::host {

// Whether memory or descriptors ran out, which says nothing about what was asked for.
bool IsShortage(int error);

// Throws ShortageError when `error` is such a one. `what` could not be done.
void ThrowIfShort(const std::string& path, const std::string& what, int error);

// `reason` without the "path: " that it may begin with.
std::string WithoutPath(const std::string& reason, const std::string& path);

}  // namespace capsule::host
