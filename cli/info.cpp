#include <memory>
#include <nlohmann/json.hpp>

#include "cli/command.h"
#include "cli/opening.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct InfoArguments {
  std::string image;
  bool json = false;
};

nlohmann::ordered_json ToJson(const host::Image& image) {
  const host::ImageInfo& info = image.Info();
  nlohmann::ordered_json json;
  json["image"] = ToUtf8(image.Path());
  json["label"] = ToUtf8(info.label);
  json["size"] = info.imageBytes;
  json["compressed"] = info.compressed;
  json["index_offset"] = info.indexOffset;
  json["index_checked"] = info.checked;
  json["partitions"] = nlohmann::ordered_json::array();
  for (const host::PartitionInfo& partition : info.partitions) {
    json["partitions"].push_back({{"offset", partition.offset},
                                  {"system_id", partition.systemId},
                                  {"sectors", partition.sectorCount},
                                  {"files", partition.files},
                                  {"directories", partition.directories},
                                  {"bytes", partition.bytes}});
  }
  return json;
}

void WriteText(const host::Image& image, Output& output) {
  const host::ImageInfo& info = image.Info();
  output.WritePathLine("image:       ", image.Path());
  output.WritePathLine("label:       ", info.label);
  output.Write("size:        " + Counted(info.imageBytes, "byte", "bytes") + "\n");
  output.Write(std::string("compression: ") + (info.compressed ? "LZS" : "none") + "\n");
  output.Write("index:       at " + std::to_string(info.indexOffset) +
               (info.checked ? ", check value holds\n" : ", without check value\n"));
  for (size_t n = 0; n < info.partitions.size(); ++n) {
    const host::PartitionInfo& partition = info.partitions[n];
    output.Write(
        "partition " + std::to_string(n) + ": " + Counted(partition.files, "file", "files") +
        " and " + Counted(partition.directories, "folder", "folders") + ", " +
        Counted(partition.bytes, "byte", "bytes") + ", system id " +
        std::to_string(partition.systemId) + ", at " + std::to_string(partition.offset) + "\n");
  }
}

int Info(const InfoArguments& arguments, Talk& talk) {
  const host::Image image = OpenImage(arguments.image);
  Output output;
  if (arguments.json) {
    output.Write(ToJson(image).dump() + "\n");
  } else {
    WriteText(image, output);
  }
  return ComplainAboutProblems(image, talk);
}

}  // namespace

void DeclareInfo(CLI::App& app, Session& session) {
  auto arguments = std::make_shared<InfoArguments>();
  CLI::App* command = app.add_subcommand("info", "Tell what an image is and holds");
  command->add_option("IMAGE", arguments->image, "The image file")->required();
  command->add_flag("--json", arguments->json, "One JSON object");
  command->callback([arguments, &session] {
    session.run = [arguments, &session] { return Info(*arguments, session.talk); };
  });
}

}  // namespace capsule::cli
