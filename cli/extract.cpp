#include <memory>

#include "capsule/host/extractor.h"
#include "cli/command.h"
#include "cli/damage.h"
#include "cli/jobs.h"
#include "cli/opening.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct ExtractArguments {
  std::string image;
  std::vector<std::string> paths;
  std::string target = ".";
  bool force = false;
  bool json = false;
  uint64_t jobs = 0;
  std::string onDamage = "stop";
};

// Paths that are not in the image are named, and the others extracted. How many were missing.
size_t AddPaths(const host::Image& image, const std::vector<std::string>& paths,
                host::Extractor& extractor, Talk& talk) {
  size_t missing = 0;
  for (const std::string& path : paths) {
    if (const auto entry = image.Find(path)) {
      extractor.Add(*entry);
    } else {
      talk.Complain(image.Path(), path + ": not in the image");
      ++missing;
    }
  }
  return missing;
}

int Extract(const ExtractArguments& arguments, Talk& talk) {
  const host::Image image = OpenImage(arguments.image);
  host::ExtractOptions options;
  options.force = arguments.force;
  options.jobs = Jobs(arguments.jobs);
  Output output;
  options.onDamage = DamageChoice(arguments.onDamage);
  options.onLost = [&](const std::string& path, const host::LostRange& lost) {
    talk.Complain(image.Path(), LostText(path, lost));
    if (arguments.json) output.Write(LostJson(path, lost));
  };
  options.onProgress = [&talk](const host::Progress& at) { talk.Progress(at); };
  host::Extractor extractor(image, arguments.target, options);
  const size_t missing = AddPaths(image, arguments.paths, extractor, talk);
  if (missing != 0 && missing == arguments.paths.size()) return kFailed;
  int result = ComplainAboutProblems(image, talk);
  const host::ExtractReport report = extractor.Run();
  for (const host::ExtractProblem& problem : report.problems) {
    talk.Complain(image.Path(), problem.path + ": " + problem.reason);
    if (arguments.json) output.Write(FailedJson(problem.path, problem.reason));
  }
  talk.Summarize(arguments.target + ": " + Counted(report.files, "file", "files") + " and " +
                 Counted(report.directories, "new folder", "new folders") + ", " +
                 Counted(report.bytes, "byte", "bytes"));
  const bool isAllThere = report.problems.empty() && report.damagedFiles == 0;
  if (missing != 0 || !isAllThere) result = kProblems;
  return result;
}

}  // namespace

void DeclareExtract(CommandLine& line) {
  auto arguments = std::make_shared<ExtractArguments>();
  Arguments command = line.Add("extract", "Write files and folders of an image to disk",
                               [arguments](Talk& talk) { return Extract(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  command.Optional("PATH", arguments->paths, "What to extract; everything by default");
  command.Text("-C,--directory", arguments->target, "DIR", "The folder to write to");
  AddJobsOption(command, arguments->jobs,
                "Threads that decode and write; one a processor unless given");
  command.Flag("--force", arguments->force, "Replace existing files");
  AddDamageOption(command, arguments->onDamage);
  command.Flag("--json", arguments->json,
               "What is lost on standard output, one JSON object a line");
}

}  // namespace capsule::cli
