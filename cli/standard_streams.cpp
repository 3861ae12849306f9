// Closed descriptors are filled by opening /dev/null the wrong way round, so that using them still
// fails as it would have before.
#include "cli/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

namespace capsule::cli {

void PrepareStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    // Opened the wrong way round, so that using it still fails. Gets the lowest free number.
    const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    static_cast<void>(open("/dev/null", flags));
  }
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

}  // namespace capsule::cli
