// The `capsule` command: one command a file, on top of host/ and nothing below it.
// Exit status: 0 done, 1 done with problems, 2 could not do it; a signal ends it as usual.
#include <cstdio>
#include <exception>
#include <new>

#include "capsule/host/clean_ending.h"
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

int RunCommand(int count, char** words, Talk& talk) {
  Output output;
  try {
    CommandLine line(talk.QuietFlag());
    DeclareAll(line);
    const auto run = line.Parse(count, words);
    const int result = run ? run(talk) : kDone;
    output.Flush();
    return result;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    talk.Complain(error.what());
  }
  return kFailed;
}

int Run(int count, char** words) {
  Talk talk;
  try {
    return RunCommand(count, words, talk);
  } catch (const std::bad_alloc&) {
    // Said without taking any.
    static_cast<void>(std::fputs("capsule: out of memory\n", stderr));
  }
  return kFailed;
}

}  // namespace
}  // namespace capsule::cli

int main(int argc, char** argv) {
  capsule::cli::PrepareStandardStreams();
  capsule::host::CleanUpOnSignals();
  return capsule::cli::Run(argc, argv);
}
