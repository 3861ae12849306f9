#include <memory>

#include "capsule/host/message_text.h"
#include "capsule/host/verifier.h"
#include "cli/command.h"
#include "cli/jobs.h"
#include "cli/json_object.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct VerifyArguments {
  std::string image;
  uint64_t jobs = 0;
  bool json = false;
};

std::string JsonLine(const host::Fault& fault) {
  JsonObject json;
  json.Number("offset", fault.offset);
  if (!fault.path.empty()) json.Path(fault.path);
  return json.Text("fault", fault.reason).Line();
}

std::string JsonSummary(const host::VerifyReport& report) {
  return JsonObject()
      .Number("faults", report.faults)
      .Number("files", report.files)
      .Number("bytes", report.bytes)
      .Truth("has_index", report.hasIndex)
      .Number("check_values", report.checkValues)
      .Line();
}

// Faults are what was asked for: they are data.
std::string TextLine(const host::Fault& fault) {
  const std::string path = fault.path.empty() ? "" : ForTerminal(fault.path) + ": ";
  return host::Hex(fault.offset) + ": " + path + ForTerminal(fault.reason) + "\n";
}

int Verify(const VerifyArguments& arguments, Talk& talk) {
  Output output;
  const auto take = [&](const host::Fault& fault) {
    output.Write(arguments.json ? JsonLine(fault) : TextLine(fault));
  };
  host::VerifyOptions options;
  options.jobs = Jobs(arguments.jobs);
  options.onProgress = [&talk](const host::Progress& at) { talk.Progress(at); };
  const host::VerifyReport report = host::Verifier(arguments.image).Run(take, options);
  if (arguments.json) output.Write(JsonSummary(report));
  talk.Summarize(arguments.image + ": " + Counted(report.files, "file", "files") + " read, " +
                 Counted(report.checkValues, "check value", "check values") + " compared" +
                 (report.hasIndex ? "" : ", no index") + ", " +
                 (report.faults == 0 ? "no fault" : Counted(report.faults, "fault", "faults")));
  return report.faults == 0 ? kDone : kProblems;
}

}  // namespace

void DeclareVerify(CommandLine& line) {
  auto arguments = std::make_shared<VerifyArguments>();
  Arguments command = line.Add(
      "verify", "Read everything in an image and name each fault: offset, file, what is wrong",
      [arguments](Talk& talk) { return Verify(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  AddJobsOption(command, arguments->jobs, "Threads that read; one a processor unless given");
  command.Flag("--json", arguments->json, "One JSON object a line, the last one a summary");
}

}  // namespace capsule::cli
