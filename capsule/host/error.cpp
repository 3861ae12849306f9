#include "capsule/host/error.h"

#include <cerrno>
#include <utility>

#include "capsule/host/message_text.h"

namespace capsule::host {
namespace {

std::string Message(const std::string& path, const std::string& reason) {
  return OneLine(path.empty() ? reason : path + ": " + reason);
}

bool IsErrno(const std::error_code& code) {
  return code.category() == std::generic_category() || code.category() == std::system_category();
}

std::string SystemMessage(const std::string& what, const std::error_code& code) {
  const std::string reason = IsErrno(code) ? SystemReason(code.value()) : code.message();
  return what.empty() ? reason : what + ": " + reason;
}

}  // namespace

ErrorKind KindOf(const std::error_code& code) {
  switch (IsErrno(code) ? code.value() : 0) {
    case ENOENT:
      return ErrorKind::NotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return ErrorKind::NoPermission;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return ErrorKind::NoSpace;
    case EEXIST:
      return ErrorKind::Exists;
    case ENOTSUP:
      return ErrorKind::Unsupported;
    case ECANCELED:
      return ErrorKind::Cancelled;
    default:
      return ErrorKind::System;
  }
}

Error::Error(std::string path, std::string reason, std::optional<uint64_t> offset)
    : Error(ErrorKind::Damaged, std::move(path), std::move(reason), offset) {}

Error::Error(ErrorKind kind, std::string path, std::string reason, std::optional<uint64_t> offset)
    : std::runtime_error(Message(path, reason)),
      m_strPath(std::move(path)),
      m_strReason(std::move(reason)),
      m_nOffset(offset),
      m_kind(kind) {}

Error::Error(std::string path, const std::string& what, std::error_code code,
             std::optional<uint64_t> offset)
    : Error(KindOf(code), std::move(path), SystemMessage(what, code), offset) {
  m_code = code;
}

}  // namespace capsule::host
