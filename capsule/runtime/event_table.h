// The events of the process: what CapsuleEvent objects of the same name share.
//
// Handles are numbers above 0. Every open gives a new one; equal names lead to one event as long as
// a handle to it is open. All operations may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capsule/runtime/capsule_event.h"

namespace capsule {

// A handle to the event called `name`, created (not signalled) unless it exists; its kind is then
// what it was created as. 0 when memory runs out.
EventHandle OpenEvent(const std::string& name, bool manualReset);
void CloseEvent(EventHandle handle);

void SignalEvent(EventHandle handle);
void ClearEvent(EventHandle handle);

// Waits until one of `handles` is signalled: its lowest index. An auto-reset event is cleared by
// the wait that returns it. -1 after `timeoutMs` milliseconds (negative: never) or when a handle is
// not open.
int WaitForEvents(const std::vector<EventHandle>& handles, int32_t timeoutMs);

}  // namespace capsule
