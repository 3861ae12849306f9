#include <memory>

#include "capsule/host/index_writer.h"
#include "cli/command.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

int Index(const std::string& image, Talk& talk) {
  const host::IndexReport report =
      host::IndexWriter(image).Write(host::DamagedSections::IndexWhatIsLeft);
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
  auto image = std::make_shared<std::string>();
  Arguments command = line.Add("index", "Build the index of an image anew, for images without one",
                               [image](Talk& talk) { return Index(*image, talk); });
  command.Required("IMAGE", *image, "The image file, which is changed");
}

}  // namespace capsule::cli
