// Messages that are meant for the user's eyes, not for the caller.
//
//   static std::string log;
//   platform::SetMessageSink([](const char* message, void*) { log += message; }, nullptr);
//   platform::SetMessageSink(nullptr, nullptr);  // the default again
#pragma once

#include "capsule/export.h"

namespace capsule::platform {

// Receives one message without a line end. May be called from any thread.
using MessageSink = void (*)(const char* message, void* context);

// Replaces the sink; null brings back the default, which writes one line to standard error.
CAPSULE_API void SetMessageSink(MessageSink sink, void* context);

}  // namespace capsule::platform
