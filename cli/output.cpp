#include "cli/output.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "capsule/host/error.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

constexpr size_t kBufferSize = size_t{64} << 10;

[[noreturn]] void Fail() {
  throw host::Error("standard output", "cannot write",
                    std::error_code(errno, std::generic_category()));
}

}  // namespace

Output::Output() : m_terminal(isatty(STDOUT_FILENO) == 1) {
  static std::array<char, kBufferSize> buffer;  // in use until the process ends
  static const bool isSet =
      !m_terminal && std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size()) == 0;
  static_cast<void>(isSet);
}

void Output::Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) Fail();
}

void Output::Write(std::span<const unsigned char> bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) Fail();
}

void Output::WritePathLine(std::string_view before, std::string_view path, std::string_view after) {
  Write(before);
  if (m_terminal) {
    Write(ForTerminal(path));
  } else {
    Write(path);
  }
  Write(after);
}

void Output::Flush() {
  if (std::fflush(stdout) != 0) Fail();
}

}  // namespace capsule::cli
