#include "capsule/platform/thread.h"

#include <pthread.h>

#include <memory>
#include <new>

namespace capsule::platform {
namespace {

struct Start {
  ThreadEntry entry;
  void* parameter;
};

void* Run(void* argument) {
  Start start{};
  {
    const std::unique_ptr<Start> owned(static_cast<Start*>(argument));
    start = *owned;
  }
  start.entry(start.parameter);
  return nullptr;
}

}  // namespace

bool StartThread(ThreadEntry entry, void* parameter) {
  auto* start = new (std::nothrow) Start{entry, parameter};
  if (start == nullptr) return false;
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, Run, start) != 0) {
    delete start;
    return false;
  }
  return pthread_detach(thread) == 0;
}

void ExitThread(uint32_t) { pthread_exit(nullptr); }

}  // namespace capsule::platform
