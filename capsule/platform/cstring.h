// CString is the string type of the class interface: bytes, any value, length known.
#pragma once

#include <string>

namespace capsule {
using CString = std::string;
}  // namespace capsule
