#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "capsule/host/image_map.h"
#include "cli/command.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct InspectArguments {
  std::string image;
  bool json = false;
};

std::string JsonLine(const host::MapItem& item) {
  nlohmann::ordered_json json;
  json["offset"] = item.offset;
  json["length"] = item.length;
  json["kind"] = host::MapKindName(item.kind);
  if (item.section >= 0) json["section"] = item.section;
  if (!item.path.empty()) json["path"] = ToUtf8(item.path);
  if (!IsUtf8(item.path)) json["path_hex"] = ToHex(item.path);
  json["text"] = ToUtf8(item.text);
  if (!item.problem.empty()) json["problem"] = ToUtf8(item.problem);
  return json.dump() + "\n";
}

// Names come from the image: a map is one line an item, whatever is in them.
std::string TextLine(const host::MapItem& item) {
  std::array<char, 64> columns{};
  std::snprintf(columns.data(), columns.size(), "0x%08llx %10llu  %-14s ",
                static_cast<unsigned long long>(item.offset),
                static_cast<unsigned long long>(item.length), host::MapKindName(item.kind));
  std::string line = columns.data() + ForTerminal(item.text);
  if (!item.path.empty()) line += (item.text.empty() ? "[" : " [") + ForTerminal(item.path) + "]";
  if (!item.problem.empty()) line += " !! " + ForTerminal(item.problem);
  return line + "\n";
}

double Percent(const host::MapSummary& map) {
  if (map.fileBytes == 0) return 0;
  return 100.0 * static_cast<double>(map.accountedBytes) / static_cast<double>(map.fileBytes);
}

std::string JsonSummary(const host::MapSummary& map) {
  nlohmann::ordered_json json;
  json["kind"] = "summary";
  json["size"] = map.fileBytes;
  json["accounted"] = map.accountedBytes;
  json["percent"] = Percent(map);
  json["items"] = map.items;
  json["problems"] = map.problems;
  if (!map.headerProblem.empty()) json["header_problem"] = ToUtf8(map.headerProblem);
  return json.dump() + "\n";
}

std::string TextSummary(const host::MapSummary& map) {
  std::array<char, 160> text{};
  std::snprintf(text.data(), text.size(), "%llu of %llu bytes accounted for (%.2f %%)",
                static_cast<unsigned long long>(map.accountedBytes),
                static_cast<unsigned long long>(map.fileBytes), Percent(map));
  return text.data() + (", " + Counted(map.items, "item", "items")) + ", " +
         Counted(map.problems, "problem", "problems") + "\n";
}

int Inspect(const InspectArguments& arguments, Talk& talk) {
  Output output;
  const host::MapSummary map = host::MapImage(arguments.image, [&](const host::MapItem& item) {
    output.Write(arguments.json ? JsonLine(item) : TextLine(item));
  });
  output.Write(arguments.json ? JsonSummary(map) : TextSummary(map));
  if (!map.headerProblem.empty()) talk.Complain(arguments.image, map.headerProblem);
  return map.problems == 0 && map.headerProblem.empty() ? kDone : kProblems;
}

}  // namespace

void DeclareInspect(CLI::App& app, Session& session) {
  auto arguments = std::make_shared<InspectArguments>();
  CLI::App* command = app.add_subcommand(
      "inspect", "Tell what every byte of an image is, damaged or not: offset, length, meaning");
  command->add_option("IMAGE", arguments->image, "The image file")->required();
  command->add_flag("--json", arguments->json, "One JSON object a line, the last one a summary");
  command->callback([arguments, &session] {
    session.run = [arguments, &session] { return Inspect(*arguments, session.talk); };
  });
}

}  // namespace capsule::cli
