// Names may come from anywhere and hold any bytes; these functions make text of them that can be
// shown.
//
//   Print(host::OneLine("a\nb"), host::Hex(8000), host::SystemReason(2));
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "capsule/export.h"

namespace capsule::host {

// Bytes of the UTF-8 sequence at the start of `text`, which is not empty; 0 when there is none.
CAPSULE_API size_t Utf8SequenceLength(std::string_view text);

// `text` in one line that moves no cursor: control characters are spelled \x0a, those of U+0080 to
// U+009F too, whether they come as UTF-8 or as single bytes. All else stays as it is.
CAPSULE_API std::string OneLine(std::string_view text);

// What the system says about `error`, a value of errno, in lower case.
CAPSULE_API std::string SystemReason(int error);

// The value in hexadecimal: 8000 is "0x1f40".
CAPSULE_API std::string Hex(uint64_t value);

}  // namespace capsule::host
