#include <cstdio>
#include <memory>

#include "capsule/host/image_map.h"
#include "cli/command.h"
#include "cli/json_object.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct InspectArguments {
  std::string image;
  bool json = false;
};

std::string JsonLine(const host::MapItem& item) {
  JsonObject json;
  json.Number("offset", item.offset).Number("length", item.length);
  json.Text("kind", host::MapKindName(item.kind));
  if (item.section >= 0) json.Number("section", static_cast<uint64_t>(item.section));
  if (!item.path.empty()) json.Path(item.path);
  json.Text("text", item.text);
  if (!item.problem.empty()) json.Text("problem", item.problem);
  return json.Line();
}

// Names come from the image: a map is one line an item, whatever is in them.
std::string TextLine(const host::MapItem& item) {
  std::string line(64, '\0');
  const int length =
      std::snprintf(line.data(), line.size(), "0x%08llx %10llu  %-14s ",
                    static_cast<unsigned long long>(item.offset),
                    static_cast<unsigned long long>(item.length), host::MapKindName(item.kind));
  line.resize(static_cast<size_t>(length));
  line += ForTerminal(item.text);
  if (!item.path.empty()) line += (item.text.empty() ? "[" : " [") + ForTerminal(item.path) + "]";
  if (!item.problem.empty()) line += " !! " + ForTerminal(item.problem);
  return line + "\n";
}

double Percent(const host::MapSummary& map) {
  if (map.fileBytes == 0) return 0;
  return 100.0 * static_cast<double>(map.accountedBytes) / static_cast<double>(map.fileBytes);
}

std::string JsonSummary(const host::MapSummary& map) {
  JsonObject json;
  json.Text("kind", "summary").Number("size", map.fileBytes);
  json.Number("accounted", map.accountedBytes).Fraction("percent", Percent(map));
  json.Number("items", map.items).Number("problems", map.problems);
  if (!map.headerProblem.empty()) json.Text("header_problem", map.headerProblem);
  return json.Line();
}

std::string TextSummary(const host::MapSummary& map) {
  std::string text(160, '\0');
  const int length =
      std::snprintf(text.data(), text.size(), "%llu of %llu bytes accounted for (%.2f %%)",
                    static_cast<unsigned long long>(map.accountedBytes),
                    static_cast<unsigned long long>(map.fileBytes), Percent(map));
  text.resize(static_cast<size_t>(length));
  return text + ", " + Counted(map.items, "item", "items") + ", " +
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

void DeclareInspect(CommandLine& line) {
  auto arguments = std::make_shared<InspectArguments>();
  Arguments command = line.Add(
      "inspect", "Tell what every byte of an image is, damaged or not: offset, length, meaning",
      [arguments](Talk& talk) { return Inspect(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  command.Flag("--json", arguments->json, "One JSON object a line, the last one a summary");
}

}  // namespace capsule::cli
