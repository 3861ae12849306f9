#include <memory>

#include "capsule/host/index_writer.h"
#include "cli/command.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

int Index(const std::string& image, Talk& talk) {
  const host::IndexReport report = host::IndexWriter(image).Write();
  talk.Summarize(image + ": " + Counted(report.sections, "partition", "partitions") + ", " +
                 Counted(report.files, "file", "files") + " and " +
                 Counted(report.directories, "folder", "folders") + " in the index");
  return kDone;
}

}  // namespace

void DeclareIndex(CLI::App& app, Session& session) {
  auto image = std::make_shared<std::string>();
  CLI::App* command =
      app.add_subcommand("index", "Build the index of an image anew, for images without one");
  command->add_option("IMAGE", *image, "The image file, which is changed")->required();
  command->callback([image, &session] {
    session.run = [image, &session] { return Index(*image, session.talk); };
  });
}

}  // namespace capsule::cli
