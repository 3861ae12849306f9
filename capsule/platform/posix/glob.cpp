// Patterns are matched in the C locale, byte by byte, so that which items are left out does not
// depend on the environment.
#include "capsule/platform/glob.h"

#include <fnmatch.h>

#include <clocale>

namespace capsule::platform {
namespace {

// The C locale on this thread for the length of a scope.
class BytesLocale {
 public:
  BytesLocale() : m_previous(::uselocale(Bytes())) {}
  ~BytesLocale() { ::uselocale(m_previous); }
  BytesLocale(const BytesLocale&) = delete;
  BytesLocale& operator=(const BytesLocale&) = delete;

 private:
  // Null leaves the locale as it is; the C locale cannot fail to be there.
  static locale_t Bytes() {
    static const locale_t bytes = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return bytes;
  }

  locale_t m_previous;
};

}  // namespace

bool MatchesGlob(const std::string& pattern, const std::string& text, bool isPath) {
  const BytesLocale bytes;
  return ::fnmatch(pattern.c_str(), text.c_str(), isPath ? FNM_PATHNAME : 0) == 0;
}

}  // namespace capsule::platform
