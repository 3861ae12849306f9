// The `capsule` command: one command a file, on top of host/ and nothing below it.
// Exit status: 0 done, 1 done with problems, 2 could not do it.
#include <cctype>
#include <exception>
#include <new>

#include "capsule/host/error.h"
#include "cli/command.h"
#include "cli/output.h"
#include "cli/standard_streams.h"

namespace capsule::cli {
namespace {

constexpr char kDescription[] =
    "Builds image files of folders and reads them back.\n"
    "Paths in an image are N:/folder/file, N being the number of the partition (0 when left out).";

void DeclareAll(CLI::App& app, Session& session) {
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", "capsule " CAPSULE_VERSION, "Print the version and exit");
  app.add_flag("-q,--quiet", session.talk.QuietFlag(), "Say only what went wrong");
  DeclareCreate(app, session);
  DeclareList(app, session);
  DeclareExtract(app, session);
  DeclareCat(app, session);
  DeclareInfo(app, session);
  DeclareIndex(app, session);
  DeclareInspect(app, session);
  DeclareVerify(app, session);
}

// In the style of the other messages: lower-case and one line.
std::string ArgumentMessage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining();
  const bool noSuchCommand = app.get_subcommands().empty() && !unknown.empty();
  const std::string reason = noSuchCommand ? unknown.front() + ": no such command" : error.what();
  std::string text = host::Error("", reason).what();
  const bool isWord = text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0;
  if (isWord || text.starts_with("A ")) {
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  }
  while (!text.empty() && text.back() == '.') text.pop_back();
  return text + "; see `capsule --help`";
}

int Run(int count, char** arguments) {
  CLI::App app(kDescription, "capsule");
  Session session;
  DeclareAll(app, session);
  Output output;
  try {
    try {
      app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
      if (error.get_exit_code() != 0) {
        session.talk.Complain(ArgumentMessage(app, error));
        return kFailed;
      }
      static_cast<void>(app.exit(error));  // prints the help or the version
      output.Flush();
      return kDone;
    }
    const int result = session.run();
    output.Flush();
    return result;
  } catch (const std::bad_alloc&) {
    session.talk.Complain("out of memory");
  } catch (const std::exception& error) {
    session.talk.Complain(error.what());
  }
  return kFailed;
}

}  // namespace
}  // namespace capsule::cli

int main(int argc, char** argv) {
  capsule::cli::PrepareStandardStreams();
  return capsule::cli::Run(argc, argv);
}
