#include "cli/output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "capsule/host/error.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

[[noreturn]] void Fail() {
  throw host::Error("standard output", "cannot write",
                    std::error_code(errno, std::generic_category()));
}

}  // namespace

Output::Output() : m_bTerminal(isatty(STDOUT_FILENO) == 1) {}

void Output::Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) Fail();
}

void Output::Write(std::span<const unsigned char> bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) Fail();
}

void Output::WritePathLine(std::string_view before, std::string_view path) {
  Write(before);
  if (m_bTerminal) {
    Write(ForTerminal(path));
  } else {
    Write(path);
  }
  Write("\n");
}

void Output::Flush() {
  if (std::fflush(stdout) != 0) Fail();
}

}  // namespace capsule::cli
