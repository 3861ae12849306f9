// The sink is copied under the lock and called outside of it, so that a sink may itself show a
// message or replace the sink.
#include "capsule/platform/message_sink.h"

#include <mutex>
#include <string>

#include "capsule/platform/show_message.h"
#include "capsule/platform/standard_error.h"

namespace capsule::platform {
namespace {

// A message is one line, whatever a file name in it may hold.
void WriteToStandardError(const char* message, void*) {
  std::string line(message);
  for (char& c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) c = ' ';
  }
  WriteErrorLine(line);
}

struct Target {
  MessageSink sink = WriteToStandardError;
  void* context = nullptr;
};

struct SharedTarget {
  std::mutex lock;
  Target target;
};

SharedTarget& Shared() {
  static SharedTarget shared;
  return shared;
}

}  // namespace

void SetMessageSink(MessageSink sink, void* context) {
  SharedTarget& shared = Shared();
  const std::lock_guard guard(shared.lock);
  shared.target = sink == nullptr ? Target{} : Target{sink, context};
}

void ShowMessage(const char* message) {
  SharedTarget& shared = Shared();
  Target target;
  {
    const std::lock_guard guard(shared.lock);
    target = shared.target;
  }
  target.sink(message, target.context);  // outside the lock: a sink may show or replace
}

}  // namespace capsule::platform
