#include <array>
#include <memory>

#include "capsule/host/image_builder.h"
#include "cli/command.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct CreateArguments {
  std::string image;
  std::vector<std::string> directories;
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
  return text;
}

int Create(CreateArguments& arguments, Talk& talk) {
  arguments.options.onProgress = [&talk](const host::BuildProgress& progress) {
    talk.Progress(progress.files, progress.sourceBytes, progress.path);
  };
  host::ImageBuilder builder(arguments.image, arguments.options);
  for (const std::string& directory : arguments.directories) builder.AddDirectory(directory);
  const host::BuildReport report = builder.Finish();
  for (const host::BuildProblem& problem : report.problems) {
    talk.Complain(problem.path, problem.reason);
  }
  talk.Summarize(Describe(arguments.image, report));
  return report.problems.empty() ? kDone : kProblems;
}

// One flag a level. The flags between those that are described stay out of the help.
void DeclareLevels(CLI::App& command, int& level) {
  constexpr std::array<const char*, 10> kMeanings = {"Do not compress",
                                                     "Compress fast (-1 to -3)",
                                                     "",
                                                     "",
                                                     "",
                                                     "Compress (-4 to -6; -5 is the default)",
                                                     "",
                                                     "",
                                                     "",
                                                     "Compress most (-7 to -9)"};
  std::vector<CLI::Option*> others;
  for (int n = 0; n < static_cast<int>(kMeanings.size()); ++n) {
    const std::string meaning = kMeanings[static_cast<size_t>(n)];
    CLI::Option* flag = command.add_flag_callback(
        "-" + std::to_string(n), [&level, n] { level = n; }, meaning);
    if (meaning.empty()) flag->group("");
    for (CLI::Option* other : others) flag->excludes(other);
    others.push_back(flag);
  }
}

}  // namespace

void DeclareCreate(CLI::App& app, Session& session) {
  auto arguments = std::make_shared<CreateArguments>();
  CLI::App* command = app.add_subcommand("create", "Make an image; each DIR is one partition");
  command->add_option("IMAGE", arguments->image, "The image file to make")->required();
  command->add_option("DIR", arguments->directories, "Folders to take in, at most ten")->required();
  DeclareLevels(*command, arguments->options.level);
  command->add_option("--label", arguments->options.label, "Text to keep in the header");
  command
      ->add_option("--exclude", arguments->options.excludes,
                   "Leave out items whose name, or path below DIR if there is a / in GLOB, matches")
      ->type_name("GLOB")
      ->allow_extra_args(false);
  command->callback([arguments, &session] {
    session.run = [arguments, &session] { return Create(*arguments, session.talk); };
  });
}

}  // namespace capsule::cli
