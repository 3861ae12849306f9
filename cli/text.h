// Names and numbers as text. Names are bytes; only what people look at, and JSON, is made UTF-8.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace capsule::cli {

bool IsUtf8(std::string_view bytes);

// `path` with every segment that is not UTF-8 read as Latin-1.
std::string ToUtf8(std::string_view path);

// ToUtf8 with control characters and `\` spelled out, so that no name moves the cursor.
std::string ForTerminal(std::string_view path);

// Two digits a byte.
std::string ToHex(std::string_view bytes);

// "2024-05-01T12:00:00Z"; seconds after 1970.
std::string IsoTime(int64_t seconds);

// "1 file", "2 files".
std::string Counted(uint64_t n, std::string_view singular, std::string_view plural);

}  // namespace capsule::cli
