// Opening, for the files of this folder.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace capsule::platform {

// open() that goes on over EINTR, closes the descriptor with exec, never waits for a peer and never
// takes a terminal. The descriptor is above 2, so that neither "not open" nor a standard stream
// that the host has closed is mistaken for a file. -1 with errno on failure.
int OpenDescriptor(const char* path, int flags, mode_t mode);

// The same for a path from an open folder.
int OpenDescriptorIn(int folder, const char* path, int flags, mode_t mode);

// Closes a descriptor on a path of failure; errno stays `reason`. Always -1.
int CloseAndFail(int descriptor, int reason);

}  // namespace capsule::platform
