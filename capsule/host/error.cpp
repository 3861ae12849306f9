// Codes are compared as conditions of the generic category, so that what a host's own category maps
// to errno is told apart like errors of the system.
#include "capsule/host/error.h"

#include <cerrno>
#include <utility>

#include "capsule/host/message_text.h"

namespace capsule::host {
namespace {

std::string Message(const std::string& path, const std::string& reason) {
  return OneLine(path.empty() ? reason : path + ": " + reason);
}

// What a code says in terms of errno, where it can be said so.
std::optional<int> ErrnoOf(const std::error_code& code) {
  const std::error_condition condition = code.default_error_condition();
  if (condition.category() != std::generic_category()) return std::nullopt;
  return condition.value();
}

std::string SystemMessage(const std::string& what, const std::error_code& code) {
  const std::optional<int> number = ErrnoOf(code);
  const std::string reason = number ? SystemReason(*number) : code.message();
  return what.empty() ? reason : what + ": " + reason;
}

}  // namespace

ErrorKind KindOf(const std::error_code& code) {
  switch (ErrnoOf(code).value_or(0)) {
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
      m_path(std::move(path)),
      m_reason(std::move(reason)),
      m_offset(offset),
      m_kind(kind) {}

Error::Error(std::string path, const std::string& what, std::error_code code,
             std::optional<uint64_t> offset)
    : Error(KindOf(code), std::move(path), SystemMessage(what, code), offset) {
  m_code = code;
}

}  // namespace capsule::host
