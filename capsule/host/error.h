// host::Error is what every failure of the modern interface arrives as.
//
//   try {
//     host::Image missing("missing.cap");
//   } catch (const host::Error& error) {
//     Print(error.what(), error.Path(), error.Reason());
//   }
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "capsule/export.h"

namespace capsule::host {

// what() is the path and the reason in one line, lower-case, without a period: "photos.cap: data
// block at 0x1f40: payload is 9000 bytes, 212 remain". Control characters in it, those of U+0080
// to U+009F included, are spelled \x0a.
class CAPSULE_API Error : public std::runtime_error {
 public:
  // `path`: the file or folder the failure is about. `offset`: where in it, when that is known.
  Error(std::string path, std::string reason, std::optional<uint64_t> offset = std::nullopt);

  const std::string& Path() const { return m_strPath; }
  const std::string& Reason() const { return m_strReason; }
  std::optional<uint64_t> Offset() const { return m_nOffset; }

 private:
  std::string m_strPath;
  std::string m_strReason;
  std::optional<uint64_t> m_nOffset;
};

// Memory or descriptors ran out: what failed may be sound, and the rest would fail like it.
class CAPSULE_API ShortageError : public Error {
 public:
  using Error::Error;
};

}  // namespace capsule::host
