#include "capsule/host/file/reason.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "capsule/host/error.h"

namespace capsule::host {

std::string SystemReason(int error) {
  std::string text = std::generic_category().message(error);
  const bool isWord = text.size() > 1 && text[1] >= 'a' && text[1] <= 'z';
  if (isWord && text[0] >= 'A' && text[0] <= 'Z') text[0] = static_cast<char>(text[0] + 32);
  return text;
}

bool IsShortage(int error) { return error == ENOMEM || error == EMFILE || error == ENFILE; }

void ThrowIfShort(const std::string& path, const std::string& what, int error) {
  if (IsShortage(error)) throw ShortageError(path, what + ": " + SystemReason(error));
}

std::string Hex(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string WithoutPath(const std::string& reason, const std::string& path) {
  const std::string start = path + ": ";
  return reason.starts_with(start) ? reason.substr(start.size()) : reason;
}

}  // namespace capsule::host
