#include "capsule/host/clean_ending.h"

#include "capsule/platform/unfinished_file.h"

namespace capsule::host {

void CleanUpOnSignals() { platform::RemoveUnfinishedFilesOnSignals(); }

}  // namespace capsule::host
