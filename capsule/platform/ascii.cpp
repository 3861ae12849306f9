#include "capsule/platform/ascii.h"

#include <algorithm>

namespace capsule::platform {

char UpperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

std::string UpperAscii(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) c = UpperAscii(c);
  return upper;
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return UpperAscii(x) == UpperAscii(y); });
}

bool IsAsciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view TrimRight(std::string_view text) {
  while (!text.empty() && IsAsciiSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::string HexDigits(uint64_t value, size_t width) {
  std::string digits(width, '0');
  for (size_t at = width; at-- > 0; value >>= 4) digits[at] = "0123456789abcdef"[value & 15];
  return digits;
}

}  // namespace capsule::platform
