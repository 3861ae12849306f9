// What becomes of a process that is told to end.
//
//   host::CleanUpOnSignals();
#pragma once

#include "capsule/export.h"

namespace capsule::host {

// From now on the signals INT, TERM and HUP, those left out that are ignored, remove what builders
// and extractors have not finished, and then end the process as they do by themselves.
CAPSULE_API void CleanUpOnSignals();

}  // namespace capsule::host
