// A progress line is cleared before anything else is written, so messages never stand behind its
// rest.
#include "cli/talk.h"

#include <unistd.h>

#include <cstdio>

#include "capsule/host/error.h"
#include "capsule/host/message_text.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(100);
constexpr size_t kProgressWidth = 76;

// The end of `text` that fits a line, cut between characters.
std::string Shortened(const std::string& text) {
  if (text.size() <= kProgressWidth) return text;
  size_t begin = text.size() - (kProgressWidth - 3);
  while (begin < text.size() && (static_cast<unsigned char>(text[begin]) & 0xC0) == 0x80) ++begin;
  return "..." + text.substr(begin);
}

void Write(const std::string& text) {
  // Nothing is left to tell anybody when standard error cannot be written.
  static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr));
}

}  // namespace

Talk::Talk() : m_terminal(isatty(STDERR_FILENO) == 1) {}
Talk::~Talk() { ClearProgress(); }

void Talk::Complain(const std::string& path, const std::string& reason) {
  Complain(host::Error(path, reason).what());
}

void Talk::Complain(const std::string& message) {
  ClearProgress();
  Write("capsule: " + host::OneLine(m_terminal ? ToUtf8(message) : message) + "\n");
}

void Talk::WriteLine(const std::string& line) {
  ClearProgress();
  Write(line);
}

void Talk::Summarize(const std::string& text) {
  if (!m_quiet) Complain(text);
}

void Talk::Progress(const host::Progress& progress) {
  if (m_quiet || !m_terminal) return;
  const auto now = std::chrono::steady_clock::now();
  if (m_progressShown && now - m_lastProgress < kProgressInterval) return;
  m_lastProgress = now;
  m_progressShown = true;
  const auto megabytes = [](uint64_t bytes) { return std::to_string(bytes / 1000000); };
  const std::string total = progress.bytesTotal == 0 ? "" : " of " + megabytes(progress.bytesTotal);
  Write("\r\033[K" +
        Shortened(Counted(progress.files, "file", "files") + ", " + megabytes(progress.bytesDone) +
                  total + " MB  " + ForTerminal(progress.path)));
}

void Talk::ClearProgress() {
  if (m_progressShown) Write("\r\033[K");
  m_progressShown = false;
}

}  // namespace capsule::cli
