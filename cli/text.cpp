#include "cli/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace capsule::cli {
namespace {

// Bytes of the UTF-8 sequence at the start of `text`; 0 when there is none.
size_t SequenceLength(std::string_view text) {
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

std::string FromLatin1(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      text += c;
    } else {
      text += static_cast<char>(0xC0 | (byte >> 6));
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

void AppendEscape(unsigned char byte, std::string* text) {
  std::array<char, 8> escape{};
  std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(byte));
  *text += escape.data();
}

}  // namespace

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t length = SequenceLength(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string ToUtf8(std::string_view path) {
  std::string text;
  for (size_t begin = 0; begin <= path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view segment = path.substr(begin, end - begin);
    text += IsUtf8(segment) ? std::string(segment) : FromLatin1(segment);
    if (end < path.size()) text += '/';
    begin = end + 1;
  }
  return text;
}

std::string ForTerminal(std::string_view path) {
  const std::string plain = ToUtf8(path);
  std::string text;
  for (size_t i = 0; i < plain.size(); ++i) {
    const auto byte = static_cast<unsigned char>(plain[i]);
    const auto next = static_cast<unsigned char>(i + 1 < plain.size() ? plain[i + 1] : 0);
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte < 0x20 || byte == 0x7F) {
      AppendEscape(byte, &text);
    } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {  // U+0080 to U+009F
      AppendEscape(next, &text);
      ++i;
    } else {
      text += plain[i];
    }
  }
  return text;
}

std::string ToHex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string IsoTime(int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  if (gmtime_r(&time, &parts) == nullptr) return "?";
  std::array<char, 32> text{};
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return {text.data(), length};
}

std::string Counted(uint64_t n, std::string_view singular, std::string_view plural) {
  return std::to_string(n).append(" ").append(n == 1 ? singular : plural);
}

}  // namespace capsule::cli
