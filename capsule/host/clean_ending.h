// What becomes of a process that is told to end.
#pragma once

namespace capsule::host {

// From now on the signals INT, TERM and HUP, those left out that are ignored, remove what builders
// and extractors have not finished, and then end the process as they do by themselves.
void CleanUpOnSignals();

}  // namespace capsule::host
