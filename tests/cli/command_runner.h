// Runs the real command as a user would.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace capsule::test {

struct CommandResult {
  int status = -1;  // exit status; negative: the signal that ended it
  std::string out;
  std::string err;
};

// Quoted for the shell.
inline std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Runs a line of shell in which `capsule` is the command under test.
inline CommandResult RunShell(const std::string& line) {
  TempDir directory;
  const std::string script = "capsule() { " + Quoted(CAPSULE_COMMAND) + " \"$@\"; }\n(" + line +
                             "\n) >" + Quoted(directory / "out") + " 2>" +
                             Quoted(directory / "err") + " </dev/null\n";
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), ReadFile(directory / "out"),
          ReadFile(directory / "err")};
}

// Runs `capsule` with these arguments.
inline CommandResult RunCapsule(const std::vector<std::string>& arguments) {
  std::string line = "capsule";
  for (const std::string& argument : arguments) line += " " + Quoted(argument);
  return RunShell(line);
}

// Has a folder of its own.
class CommandTest : public testing::Test {
 protected:
  std::string At(const std::string& name) const { return m_directory / name; }

  TempDir m_directory;
};

}  // namespace capsule::test
