#include <memory>

#include "cli/command.h"
#include "cli/json_object.h"
#include "cli/opening.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct InfoArguments {
  std::string image;
  bool json = false;
};

std::string ToJson(const host::Image& image) {
  const host::ImageInfo& info = image.Info();
  std::vector<JsonObject> partitions;
  for (const host::PartitionInfo& partition : info.partitions) {
    JsonObject object;
    if (!partition.label.empty()) object.Text("label", partition.label);
    partitions.push_back(std::move(object.Number("offset", partition.offset)
                                       .Number("system_id", partition.systemId)
                                       .Number("sectors", partition.sectorCount)
                                       .Number("files", partition.files)
                                       .Number("directories", partition.directories)
                                       .Number("bytes", partition.bytes)));
  }
  return JsonObject()
      .Text("image", image.Path())
      .Text("label", info.label)
      .Number("size", info.imageBytes)
      .Truth("compressed", info.compressed)
      .Number("index_offset", info.indexOffset)
      .Truth("index_checked", info.checked)
      .List("partitions", partitions)
      .Line();
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
    output.Write("partition " + std::to_string(n) +
                 (partition.label.empty() ? "" : " (" + ForTerminal(partition.label) + ")") + ": " +
                 Counted(partition.files, "file", "files") + " and " +
                 Counted(partition.directories, "folder", "folders") + ", " +
                 Counted(partition.bytes, "byte", "bytes") + ", system id " +
                 std::to_string(partition.systemId) + ", at " + std::to_string(partition.offset) +
                 "\n");
  }
}

int Info(const InfoArguments& arguments, Talk& talk) {
  const host::Image image = OpenImage(arguments.image);
  Output output;
  if (arguments.json) {
    output.Write(ToJson(image));
  } else {
    WriteText(image, output);
  }
  return ComplainAboutProblems(image, talk);
}

}  // namespace

void DeclareInfo(CommandLine& line) {
  auto arguments = std::make_shared<InfoArguments>();
  Arguments command = line.Add("info", "Tell what an image is and holds",
                               [arguments](Talk& talk) { return Info(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  command.Flag("--json", arguments->json, "One JSON object");
}

}  // namespace capsule::cli
