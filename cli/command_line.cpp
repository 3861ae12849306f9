#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <charconv>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "capsule/host/error.h"
#include "cli/output.h"

namespace capsule::cli {
namespace {

constexpr char kDescription[] =
    "Builds image files of folders and reads them back.\n"
    "Paths in an image are N:/folder/file, N being the number of the partition (0 when left out).";

// In the style of the other messages: lower-case and one line.
std::string ArgumentMessage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining();
  std::string reason = error.what();
  if (app.get_subcommands().empty()) {
    reason = unknown.empty() ? "a command is required" : unknown.front() + ": no such command";
  }
  std::string text = host::Error("", reason).what();
  const bool isWord = text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0;
  if (isWord || text.starts_with("A ")) {
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  }
  while (!text.empty() && text.back() == '.') text.pop_back();
  return text + "; see `capsule --help`";
}

// Decimal, or hexadecimal behind 0x as `inspect` and `verify` print it.
uint64_t NumberIn(const char* option, const std::string& text) {
  const bool isHex = text.starts_with("0x");
  const std::string_view digits = std::string_view(text).substr(isHex ? 2 : 0);
  uint64_t number = 0;
  const auto [stop, error] = std::from_chars(digits.begin(), digits.end(), number, isHex ? 16 : 10);
  if (error == std::errc() && stop == digits.end()) return number;
  throw CLI::ValidationError(option, "'" + text + "' is not a number of bytes");
}

}  // namespace

void Arguments::Required(const char* name, std::string& value, const char* meaning) {
  m_command.add_option(name, value, meaning)->required();
}

void Arguments::Required(const char* name, std::vector<std::string>& values, const char* meaning) {
  m_command.add_option(name, values, meaning)->required();
}

void Arguments::Optional(const char* name, std::string& value, const char* meaning) {
  m_command.add_option(name, value, meaning);
}

void Arguments::Optional(const char* name, std::vector<std::string>& values, const char* meaning) {
  m_command.add_option(name, values, meaning);
}

void Arguments::Flag(const char* names, bool& value, const char* meaning) {
  m_command.add_flag(names, value, meaning);
}

void Arguments::Text(const char* names, std::string& value, const char* type, const char* meaning) {
  CLI::Option* option = m_command.add_option(names, value, meaning)->type_name(type);
  if (!value.empty()) option->capture_default_str();
}

void Arguments::Texts(const char* names, std::vector<std::string>& values, const char* type,
                      const char* meaning) {
  m_command.add_option(names, values, meaning)->type_name(type)->allow_extra_args(false);
}

void Arguments::Number(const char* names, uint64_t& value, const char* meaning) {
  const auto take = [&value, names](const std::string& text) { value = NumberIn(names, text); };
  m_command.add_option_function<std::string>(names, take, meaning)->type_name("N");
}

void Arguments::Word(const char* names, std::string& value, const std::vector<std::string>& words,
                     const char* meaning) {
  m_command.add_option(names, value, meaning)
      ->type_name(CLI::detail::join(words, "|"))
      ->check(CLI::IsMember(words).description(""))
      ->capture_default_str();
}

void Arguments::OneOf(const std::vector<Choice>& choices, const std::function<void(int)>& take) {
  const auto given = std::make_shared<std::string>();
  for (size_t place = 0; place < choices.size(); ++place) {
    const Choice& choice = choices[place];
    const auto choose = [=, name = choice.name] {
      if (!given->empty() && *given != name) throw CLI::ExcludesError(name, *given);
      *given = name;
      take(static_cast<int>(place));
    };
    CLI::Option* flag = m_command.add_flag_callback(choice.name, choose, choice.meaning);
    if (choice.meaning.empty()) flag->group("");
  }
}

CommandLine::CommandLine(bool& isQuiet)
    : m_app(std::make_unique<CLI::App>(kDescription, "capsule")) {
  m_app->require_subcommand(1);
  m_app->fallthrough();
  m_app->set_version_flag("--version", "capsule " CAPSULE_VERSION, "Print the version and exit");
  m_app->add_flag("-q,--quiet", isQuiet, "Say only what went wrong");
}

CommandLine::~CommandLine() = default;

Arguments CommandLine::Add(const char* name, const char* meaning, std::function<int(Talk&)> run) {
  CLI::App* command = m_app->add_subcommand(name, meaning);
  command->callback([this, run = std::move(run)] { m_chosen = run; });
  return Arguments(*command);
}

std::function<int(Talk&)> CommandLine::Parse(int count, char** words) {
  try {
    m_app->parse(count, words);
    return m_chosen;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) throw std::runtime_error(ArgumentMessage(*m_app, error));
    std::ostringstream text;  // the help or the version
    static_cast<void>(m_app->exit(error, text, text));
    return [said = text.str()](Talk&) {
      Output().Write(said);
      return 0;
    };
  }
}

}  // namespace capsule::cli
