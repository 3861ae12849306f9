// Threads of the system, for classes that wrap them.
#pragma once

#include <cstdint>

namespace capsule::platform {

using ThreadEntry = void (*)(void* parameter);

// Starts a thread that runs `entry` and ends by itself. False when the system refuses.
bool StartThread(ThreadEntry entry, void* parameter);

// Ends the calling thread at once; destructors of its frames run.
[[noreturn]] void ExitThread(uint32_t exitCode);

}  // namespace capsule::platform
