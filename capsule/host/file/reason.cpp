// Running out of memory or descriptors says nothing about what was asked for, so it becomes an
// error of another type, which nobody takes for damage.
#include "capsule/host/file/reason.h"

#include <cerrno>

#include "capsule/host/error.h"

namespace capsule::host {

bool IsShortage(int error) { return error == ENOMEM || error == EMFILE || error == ENFILE; }

void ThrowIfShort(const std::string& path, const std::string& what, int error) {
  if (IsShortage(error)) ThrowSystemError(path, what, error);
}

void ThrowSystemError(const std::string& path, const std::string& what, int error,
                      std::optional<uint64_t> offset) {
  ThrowSystemError(path, what, std::error_code(error, std::generic_category()), offset);
}

void ThrowSystemError(const std::string& path, const std::string& what, const std::error_code& code,
                      std::optional<uint64_t> offset) {
  const std::error_condition condition = code.default_error_condition();
  if (condition.category() == std::generic_category() && IsShortage(condition.value()))
    throw ShortageError(path, what, code, offset);
  throw Error(path, what, code, offset);
}

std::string WithoutPath(const std::string& reason, const std::string& path) {
  const std::string start = path + ": ";
  return reason.starts_with(start) ? reason.substr(start.size()) : reason;
}

}  // namespace capsule::host
