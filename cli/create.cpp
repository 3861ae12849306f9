// Problems are told even when the build fails later, since they may be the reason. Once the image
// is in its place, running out of memory while telling of it is a problem and no failure.
#include <memory>
#include <new>

#include "capsule/host/image_builder.h"
#include "cli/command.h"
#include "cli/jobs.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct CreateArguments {
  std::string image;
  std::vector<std::string> directories;
  uint64_t jobs = 0;
  host::BuildOptions options;
};

std::string Describe(const std::string& image, const host::BuildReport& report) {
  std::string text = image + ": " + Counted(report.files, "file", "files") + " and " +
                     Counted(report.directories, "folder", "folders") + ", " +
                     Counted(report.sourceBytes, "byte", "bytes") + ", in an image of " +
                     Counted(report.imageBytes, "byte", "bytes");
  if (report.skipped != 0) {
    text += "; " + Counted(report.skipped, "link or special file", "links and special files") +
            " left out";
  }
  if (report.excluded != 0) {
    text += "; " + Counted(report.excluded, "item", "items") + " excluded";
  }
  if (!report.oldImages.empty()) {
    text += "; " + Counted(report.oldImages.size(), "name", "names") + " of the old image left out";
  }
  if (report.seams != 0) {
    text += "; " + std::to_string(report.seamsRedone) + " of " +
            Counted(report.seams, "seam", "seams") + " of long files made twice";
  }
  return text;
}

// What is in the image but not quite as it was; empty when all of it is.
std::string DescribeLosses(const host::BuildReport& report) {
  std::string text;
  const auto add = [&text](const std::string& loss) { text += (text.empty() ? "" : ", ") + loss; };
  if (report.timesChanged != 0) {
    add(Counted(report.timesChanged, "time", "times") +
        " outside 1980 to 2107 (the nearest in its place)");
  }
  if (report.modesDropped != 0) {
    add("permissions of " + Counted(report.modesDropped, "item", "items"));
  }
  if (report.hardLinks != 0) {
    add(Counted(report.hardLinks, "hard link", "hard links") + " (a file of its own for each)");
  }
  return text;
}

void Tell(const std::vector<host::BuildProblem>& problems, Talk& talk) {
  for (const host::BuildProblem& problem : problems) talk.Complain(problem.path, problem.reason);
}

host::BuildReport Build(const CreateArguments& arguments, host::ImageBuilder& builder, Talk& talk) {
  try {
    builder.AddDirectories({arguments.directories.begin(), arguments.directories.end()});
    return builder.Finish();
  } catch (...) {
    Tell(builder.Problems(), talk);
    throw;
  }
}

int Create(CreateArguments& arguments, Talk& talk) {
  arguments.options.labelsFolders = true;
  arguments.options.jobs = Jobs(arguments.jobs);
  arguments.options.onProgress = [&talk](const host::Progress& at) { talk.Progress(at); };
  host::ImageBuilder builder(arguments.image, arguments.options);
  const host::BuildReport report = Build(arguments, builder, talk);
  try {
    Tell(report.problems, talk);
    Tell(report.unfinished, talk);
    Tell(report.oldImages, talk);
    talk.Summarize(Describe(arguments.image, report));
    const std::string losses = DescribeLosses(report);
    if (!losses.empty()) talk.Summarize(arguments.image + ": not stored: " + losses);
    return report.problems.empty() ? kDone : kProblems;
  } catch (const std::bad_alloc&) {
    return kProblems;  // the image is in its place
  }
}

// One flag a level. The flags between those that are described stay out of the help.
void DeclareLevels(Arguments& command, int& level) {
  std::vector<Arguments::Choice> levels;
  for (int n = 0; n <= 9; ++n) levels.push_back({"-" + std::to_string(n), ""});
  levels[0].meaning = "Do not compress";
  levels[1].meaning = "Compress fast (-1 to -3)";
  levels[5].meaning = "Compress (-4 to -6; -5 is the default)";
  levels[9].meaning = "Compress most (-7 to -9)";
  command.OneOf(levels, [&level](int n) { level = n; });
}

}  // namespace

void DeclareCreate(CommandLine& line) {
  auto arguments = std::make_shared<CreateArguments>();
  Arguments command = line.Add("create", "Make an image; each DIR is one partition",
                               [arguments](Talk& talk) { return Create(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file to make");
  command.Required("DIR", arguments->directories, "Folders to take in, at most ten");
  DeclareLevels(command, arguments->options.level);
  AddJobsOption(command, arguments->jobs, "Threads that compress; one a processor unless given");
  command.Flag("--force", arguments->options.force, "Replace a file that is not an image");
  command.Text("--label", arguments->options.label, "TEXT", "Text to keep in the header");
  command.Texts("--exclude", arguments->options.excludes, "GLOB",
                "Leave out items whose name, or path below DIR if there is a / in GLOB, matches");
}

}  // namespace capsule::cli
