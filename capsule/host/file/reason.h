// Words for messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

#include "capsule/host/message_text.h"

namespace capsule::host {

// Whether memory or descriptors ran out, which says nothing about what was asked for.
bool IsShortage(int error);

// Throws ShortageError when `error` is a shortage. `what` could not be done.
void ThrowIfShort(const std::string& path, const std::string& what, int error);

// Throws Error that `what` could not be done, ShortageError where memory or descriptors ran out.
[[noreturn]] void ThrowSystemError(const std::string& path, const std::string& what, int error,
                                   std::optional<uint64_t> offset = std::nullopt);
[[noreturn]] void ThrowSystemError(const std::string& path, const std::string& what,
                                   const std::error_code& code,
                                   std::optional<uint64_t> offset = std::nullopt);

// `reason` without the "path: " that it may begin with.
std::string WithoutPath(const std::string& reason, const std::string& path);

}  // namespace capsule::host
