// Words for messages.
#pragma once

#include <cstdint>
#include <string>

namespace capsule::host {

// What the system says about `error`, in lower case.
std::string SystemReason(int error);

// Whether memory or descriptors ran out, which says nothing about what was asked for.
bool IsShortage(int error);

// Throws ShortageError when `error` is such a one. `what` could not be done.
void ThrowIfShort(const std::string& path, const std::string& what, int error);

// `reason` without the "path: " that it may begin with.
std::string WithoutPath(const std::string& reason, const std::string& path);

// 8000 is "0x1f40".
std::string Hex(uint64_t value);

}  // namespace capsule::host
