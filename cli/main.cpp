// The `capsule` command: one command a file, on top of host/ and nothing below it.
// Exit status: 0 done, 1 done with problems, 2 could not do it.
#include <exception>
#include <new>

#include "cli/command.h"
#include "cli/output.h"
#include "cli/standard_streams.h"

namespace capsule::cli {
namespace {

void DeclareAll(CommandLine& line) {
  DeclareCreate(line);
  DeclareList(line);
  DeclareExtract(line);
  DeclareCat(line);
  DeclareInfo(line);
  DeclareIndex(line);
  DeclareInspect(line);
  DeclareVerify(line);
}

int Run(int count, char** words) {
  Talk talk;
  Output output;
  try {
    CommandLine line(talk.QuietFlag());
    DeclareAll(line);
    const auto run = line.Parse(count, words);
    const int result = run ? run(talk) : kDone;
    output.Flush();
    return result;
  } catch (const std::bad_alloc&) {
    talk.Complain("out of memory");
  } catch (const std::exception& error) {
    talk.Complain(error.what());
  }
  return kFailed;
}

}  // namespace
}  // namespace capsule::cli

int main(int argc, char** argv) {
  capsule::cli::PrepareStandardStreams();
  return capsule::cli::Run(argc, argv);
}
