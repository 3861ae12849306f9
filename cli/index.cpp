#include <memory>

#include "capsule/host/index_writer.h"
#include "cli/command.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct IndexArguments {
  std::string image;
  bool force = false;
};

int Index(const IndexArguments& arguments, Talk& talk) {
  const std::string& image = arguments.image;
  host::IndexOptions options;
  options.damaged =
      arguments.force ? host::DamagedSections::NoteDamage : host::DamagedSections::IndexWhatIsLeft;
  options.onProgress = [&talk](const host::Progress& at) { talk.Progress(at); };
  const host::IndexReport report = host::IndexWriter(image).Write(options);
  for (const host::ImageProblem& problem : report.problems) {
    talk.Complain(image, problem.path + ": " + problem.reason);
  }
  talk.Summarize(image + ": " + Counted(report.sections, "partition", "partitions") + ", " +
                 Counted(report.files, "file", "files") + " and " +
                 Counted(report.directories, "folder", "folders") + " in the index");
  return report.problems.empty() ? kDone : kProblems;
}

}  // namespace

void DeclareIndex(CommandLine& line) {
  auto arguments = std::make_shared<IndexArguments>();
  Arguments command = line.Add("index", "Build the index of an image anew, for images without one",
                               [arguments](Talk& talk) { return Index(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file, which is changed");
  command.Flag("--force", arguments->force,
               "Index a damaged image that has an index; the new one names the damage for good");
}

}  // namespace capsule::cli
