// A pipe that is ready takes one short write without blocking, so a line is written in one step,
// and only when the stream is ready.
#include "capsule/platform/standard_error.h"

#include <poll.h>
#include <unistd.h>

#include <string>

namespace capsule::platform {
namespace {

// A pipe that is ready takes this much at once.
constexpr size_t kOneStep = 4096;

}  // namespace

void WriteErrorLine(std::string_view line) {
  std::string text(line.substr(0, kOneStep - 1));
  text += '\n';
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  if (::poll(&ready, 1, 0) != 1 || ready.revents != POLLOUT) return;
  // Nothing is left to do for a message that did not get out.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace capsule::platform
