#include "capsule/state/roots.h"

#include "capsule/state/library_state.h"

namespace capsule::platform {

void SetRoot(char letter, const char* directory) {
  CurrentLibraryState().hostView.SetRoot(letter, directory == nullptr ? "" : directory);
}

}  // namespace capsule::platform
