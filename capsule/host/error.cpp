#include "capsule/host/error.h"

#include <array>
#include <cstdio>
#include <utility>

namespace capsule::host {
namespace {

// A message stays one line, whatever bytes a name in it has.
std::string OneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      line += c;
      continue;
    }
    std::array<char, 8> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(byte));
    line += escape.data();
  }
  return line;
}

std::string Message(const std::string& path, const std::string& reason) {
  return OneLine(path.empty() ? reason : path + ": " + reason);
}

}  // namespace

Error::Error(std::string path, std::string reason, std::optional<uint64_t> offset)
    : std::runtime_error(Message(path, reason)),
      m_strPath(std::move(path)),
      m_strReason(std::move(reason)),
      m_nOffset(offset) {}

}  // namespace capsule::host
