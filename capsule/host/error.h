// host::Error is what every failure of the modern interface arrives as.
//
//   try {
//     host::Image missing("missing.cap");
//   } catch (const host::Error& error) {
//     if (error.Kind() == host::ErrorKind::NotFound) Show("no such image");
//     Print(error.what(), error.Path(), error.Reason());
//   }
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "capsule/export.h"

namespace capsule::host {

// What a host may want to tell apart. The reason says it to people.
enum class ErrorKind {
  NotFound,      // no such file, folder, entry or partition
  NoPermission,  // the system does not let this process do it
  NotAnImage,    // the file does not begin as an image does
  Damaged,       // bytes of an image break its rules, or are missing; its index may be
  Unsupported,   // an image cannot hold it, or the system cannot do it
  Cancelled,     // by the host
  NoSpace,       // the file system is full, or does not let the file grow
  Exists,        // something is in the way that is not to be replaced
  Misuse,        // an argument out of range, a call out of order, an object that was moved from
  System,        // all else that the system says, or that changed while it was at work
};

// The kind of error that `code` stands for; ErrorKind::System unless there is a better one.
CAPSULE_API ErrorKind KindOf(const std::error_code& code);

// what() is the path and the reason in one line, lower-case, without a period: "photos.cap: data
// block at 0x1f40: payload is 9000 bytes, 212 remain". Control characters in it, those of U+0080
// to U+009F included, are spelled \x0a.
class CAPSULE_API Error : public std::runtime_error {
 public:
  // Damage, as nearly everything is that reading an image finds wrong. `path`: the file or folder
  // the failure is about. `offset`: where in it, when that is known.
  Error(std::string path, std::string reason, std::optional<uint64_t> offset = std::nullopt);

  Error(ErrorKind kind, std::string path, std::string reason,
        std::optional<uint64_t> offset = std::nullopt);

  // What the system says: the kind is that of `code`, the reason `what` (which may be empty) could
  // not be done and why.
  Error(std::string path, const std::string& what, std::error_code code,
        std::optional<uint64_t> offset = std::nullopt);

  ErrorKind Kind() const { return m_kind; }

  // What the system said; 0 when the error did not come from the system.
  std::error_code Code() const { return m_code; }

  const std::string& Path() const { return m_path; }
  const std::string& Reason() const { return m_reason; }
  std::optional<uint64_t> Offset() const { return m_offset; }

 private:
  std::string m_path;
  std::string m_reason;
  std::optional<uint64_t> m_offset;
  ErrorKind m_kind;
  std::error_code m_code;
};

// Memory or descriptors ran out, as Code() says: what failed may be sound, and the rest would fail
// like it.
class CAPSULE_API ShortageError : public Error {
 public:
  using Error::Error;
};

}  // namespace capsule::host
