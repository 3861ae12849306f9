// Talk is what the command says to people, on standard error: messages, a summary, progress.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "capsule/host/progress.h"

namespace capsule::cli {

class Talk {
 public:
  Talk();
  ~Talk();
  Talk(const Talk&) = delete;
  Talk& operator=(const Talk&) = delete;

  // No summaries, no progress; what went wrong is said all the same.
  void SetQuiet(bool quiet) { m_quiet = quiet; }
  bool& QuietFlag() { return m_quiet; }

  // "capsule: path: reason" in one line.
  void Complain(const std::string& path, const std::string& reason);

  // "capsule: message" in one line.
  void Complain(const std::string& message);

  // A line for programs, with its line end, as it is.
  void WriteLine(const std::string& line);

  // Tells what was done.
  void Summarize(const std::string& text);

  // On a terminal only, a few times a second: one line that is overwritten.
  void Progress(const host::Progress& progress);

 private:
  void ClearProgress();

  bool m_quiet = false;
  bool m_terminal;
  bool m_progressShown = false;
  std::chrono::steady_clock::time_point m_lastProgress;
};

}  // namespace capsule::cli
