#include "capsule/host/error.h"

#include <utility>

#include "capsule/host/message_text.h"

namespace capsule::host {
namespace {

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
