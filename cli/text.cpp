#include "cli/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "capsule/host/message_text.h"

namespace capsule::cli {
namespace {

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

}  // namespace

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t length = host::Utf8SequenceLength(bytes);
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
  std::string text;
  for (const char c : ToUtf8(path)) text.append(c == '\\' ? 2 : 1, c);
  return host::OneLine(text);
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
