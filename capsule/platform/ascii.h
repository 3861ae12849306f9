// Letter case, white space and digits by ASCII alone, whatever the locale; bytes above 0x7F stay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace capsule::platform {

char UpperAscii(char c);
std::string UpperAscii(std::string_view text);

// Equal ignoring the case of ASCII letters.
bool EqualIgnoringCase(std::string_view a, std::string_view b);

// One of blank, tab, line feed, vertical tab, form feed, carriage return.
bool IsAsciiSpace(char c);

std::string_view TrimRight(std::string_view text);

// The last `width` hexadecimal digits of `value`, with zeros in front.
std::string HexDigits(uint64_t value, size_t width);

}  // namespace capsule::platform
