// Names come from anywhere: what makes text of them that can be shown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace capsule::host {

// Bytes of the UTF-8 sequence at the start of `text`, which is not empty; 0 when there is none.
size_t Utf8SequenceLength(std::string_view text);

// `text` in one line that moves no cursor: control characters are spelled \x0a, those of U+0080 to
// U+009F too, whether they come as UTF-8 or as single bytes. All else stays as it is.
std::string OneLine(std::string_view text);

}  // namespace capsule::host
