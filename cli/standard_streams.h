// Makes the standard streams safe to use before anything else is opened.
#pragma once

namespace capsule::cli {

// Fills closed standard descriptors, so that no file of ours gets one of their numbers and is
// written over by messages, and makes writing to a closed pipe, or beyond a limit on the size of
// files, an error instead of the end.
void PrepareStandardStreams();

}  // namespace capsule::cli
