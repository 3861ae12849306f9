// Text is taken one UTF-8 sequence at a time; a byte that begins none is judged by itself, since
// terminals obey control characters in both forms.
#include "capsule/host/message_text.h"

#include <array>
#include <charconv>
#include <system_error>

#include "capsule/platform/ascii.h"

namespace capsule::host {
namespace {

bool IsControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7F || (byte >= 0x80 && byte < 0xA0);
}

}  // namespace

size_t Utf8SequenceLength(std::string_view text) {
  const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0) != 0x80) return 0;
  }
  const bool isOverlong = (lead == 0xE0 && at(1) < 0xA0) || (lead == 0xF0 && at(1) < 0x90);
  const bool isSurrogate = lead == 0xED && at(1) > 0x9F;
  const bool isTooHigh = lead == 0xF4 && at(1) > 0x8F;
  return isOverlong || isSurrogate || isTooHigh ? 0 : length;
}

std::string OneLine(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const size_t length = Utf8SequenceLength(text);
    const size_t taken = length == 0 ? 1 : length;
    // In UTF-8, U+0080 to U+00BF are 0xC2 and the byte of the same value.
    const bool isC2 = length == 2 && text[0] == '\xC2';
    const auto byte = static_cast<unsigned char>(text[isC2 ? 1 : 0]);
    if ((taken == 1 || isC2) && IsControl(byte)) {
      line += "\\x" + platform::HexDigits(byte, 2);
    } else {
      line += text.substr(0, taken);
    }
    text.remove_prefix(taken);
  }
  return line;
}

std::string SystemReason(int error) {
  std::string text = std::generic_category().message(error);
  const bool isWord = text.size() > 1 && text[1] >= 'a' && text[1] <= 'z';
  if (isWord && text[0] >= 'A' && text[0] <= 'Z') text[0] = static_cast<char>(text[0] + 32);
  return text;
}

std::string Hex(uint64_t value) {
  std::array<char, 16> digits{};
  const auto [end, error] = std::to_chars(digits.begin(), digits.end(), value, 16);
  return "0x" + std::string(digits.begin(), end);
}

}  // namespace capsule::host
