// Messages of the library itself, for the sink that the host has set.
#pragma once

namespace capsule::platform {

// `message` has no line end.
void ShowMessage(const char* message);

}  // namespace capsule::platform
