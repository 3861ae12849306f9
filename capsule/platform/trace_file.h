// Trace files: text files under a name that others may know.
#pragma once

#include <cstdio>

namespace capsule::platform {

enum class TraceStart { Empty, AtEnd };

// Opens the file for writing and creates a missing one; with Empty what it held is gone. A link is
// not followed, and anything but a regular file of a single name is left alone, so that a link
// planted under the name does no harm to the file that it leads to. Null on failure, with the
// reason in errno. The caller closes the stream.
std::FILE* OpenTraceFile(const char* path, TraceStart start);

}  // namespace capsule::platform
