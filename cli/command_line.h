// The command line: what commands there are, what each takes, and which was chosen. CLI11 is behind
// it: its header takes longer to compile than all of the command, so only command_line.cpp has it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/talk.h"

namespace CLI {
class App;
}

namespace capsule::cli {

// What the words of a command line go to. Values must live until the command has run; those that
// are not given stay as they are.
class Arguments {
 public:
  explicit Arguments(CLI::App& command) : m_command(command) {}

  // By position, in the order of declaration. A list takes what is left.
  void Required(const char* name, std::string& value, const char* meaning);
  void Required(const char* name, std::vector<std::string>& values, const char* meaning);
  void Optional(const char* name, std::string& value, const char* meaning);
  void Optional(const char* name, std::vector<std::string>& values, const char* meaning);

  // By name: "-f,--flag". `type` stands for the value in the help, which tells the default too
  // unless it is empty.
  void Flag(const char* names, bool& value, const char* meaning);
  void Text(const char* names, std::string& value, const char* type, const char* meaning);
  void Texts(const char* names, std::vector<std::string>& values, const char* type,
             const char* meaning);
  void Number(const char* names, uint64_t& value, const char* meaning);
  void Word(const char* names, std::string& value, const std::vector<std::string>& words,
            const char* meaning);

  // Flags of which one may be given; `take` gets its place. One without a meaning is not in the
  // help.
  struct Choice {
    std::string name;
    std::string meaning;
  };
  void OneOf(const std::vector<Choice>& choices, const std::function<void(int)>& take);

 private:
  CLI::App& m_command;
};

class CommandLine {
 public:
  // `isQuiet` is what -q goes to.
  explicit CommandLine(bool& isQuiet);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Declares a command, which `run` does; it returns the exit code.
  Arguments Add(const char* name, const char* meaning, std::function<int(Talk&)> run);

  // What was chosen, which may be to print the help or the version. Throws std::runtime_error, its
  // text made for people, when the words are wrong.
  std::function<int(Talk&)> Parse(int count, char** words);

 private:
  std::unique_ptr<CLI::App> m_app;
  std::function<int(Talk&)> m_chosen;
};

}  // namespace capsule::cli
