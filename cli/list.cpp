// The tree is walked with a stack of its own and one path that grows and shrinks, so deep folders
// cost neither recursion nor more than their output.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/json_object.h"
#include "cli/opening.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

constexpr uint8_t kSystemAttribute = 0x04;

struct ListArguments {
  std::string image;
  std::string path;
  bool isLong = false;
  bool recursive = false;
  bool json = false;
};

std::string LongColumns(const host::Entry& entry) {
  const auto time = entry.ModifiedTime();
  std::string text(64, '\0');
  const int length = std::snprintf(text.data(), text.size(), "%c%c%c%c %10u %-20s ",
                                   entry.IsDirectory() ? 'd' : '-', entry.IsReadOnly() ? 'r' : '-',
                                   entry.IsHidden() ? 'h' : '-',
                                   (entry.Attributes() & kSystemAttribute) != 0 ? 's' : '-',
                                   entry.Size(), time ? IsoTime(*time).c_str() : "-");
  text.resize(static_cast<size_t>(length));
  return text;
}

const std::string& LabelOf(const host::Image& image, const host::Entry& entry) {
  return image.Info().partitions[static_cast<size_t>(entry.Partition())].label;
}

std::string JsonLine(const host::Entry& entry, const std::string& path, const std::string& label) {
  JsonObject json;
  json.Path(path).Text("type", entry.IsDirectory() ? "directory" : "file");
  json.Number("size", entry.Size());
  if (const auto time = entry.ModifiedTime()) {
    json.Text("modified", IsoTime(*time));
  } else {
    json.Null("modified");
  }
  json.Number("attributes", entry.Attributes()).Text("short_name", entry.ShortName());
  if (!label.empty()) json.Text("partition", label);
  return json.Line();
}

class Lister {
 public:
  Lister(const host::Image& image, const ListArguments& arguments, Output& output)
      : m_image(image), m_arguments(arguments), m_output(output) {}

  // The partition that what follows lies in, in front of it.
  void Partition(const host::Entry& root, const std::string& label) {
    if (label.empty() || !m_arguments.isLong || m_arguments.json) return;
    m_output.Write(LongColumns(root) + root.Path() + " (" + ForTerminal(label) + ")\n");
  }

  // What lies in a folder, or one file.
  void List(const host::Entry& entry) {
    const std::string path = entry.Path();
    if (!entry.IsDirectory()) return Line(entry, path);
    Below(entry, entry.IsRoot() ? path.substr(0, path.size() - 1) : path);
  }

 private:
  struct Level {
    host::EntryRange::Iterator next;
    host::EntryRange::Iterator end;
    size_t pathLength;
  };

  // `path` grows and shrinks with the walk, so that a deep tree costs no more than its output.
  void Below(const host::Entry& folder, std::string path) {
    const auto children = folder.Children();
    std::vector<Level> levels{{children.begin(), children.end(), path.size()}};
    while (!levels.empty()) {
      Level& level = levels.back();
      path.resize(level.pathLength);
      if (level.next == level.end) {
        levels.pop_back();
        continue;
      }
      const host::Entry entry = *level.next++;
      path.append("/").append(entry.Name());
      Line(entry, path);
      if (!m_arguments.recursive || entry.Children().empty()) continue;
      levels.push_back({entry.Children().begin(), entry.Children().end(), path.size()});
    }
  }

  void Line(const host::Entry& entry, const std::string& path) {
    if (m_arguments.json) return m_output.Write(JsonLine(entry, path, LabelOf(m_image, entry)));
    const std::string columns = m_arguments.isLong ? LongColumns(entry) : "";
    m_output.WritePathLine(columns, path, entry.IsDirectory() ? "/\n" : "\n");
  }

  const host::Image& m_image;
  const ListArguments& m_arguments;
  Output& m_output;
};

int List(const ListArguments& arguments, Talk& talk) {
  const host::Image image = OpenImage(arguments.image);
  Output output;
  Lister lister(image, arguments, output);
  if (!arguments.path.empty()) {
    lister.List(FindOrFail(image, arguments.path));
  } else {
    for (int n = 0; n < image.Partitions(); ++n) {
      if (image.Partitions() > 1) lister.Partition(image.Root(n), LabelOf(image, image.Root(n)));
      lister.List(image.Root(n));
    }
  }
  return ComplainAboutProblems(image, talk);
}

}  // namespace

void DeclareList(CommandLine& line) {
  auto arguments = std::make_shared<ListArguments>();
  Arguments command = line.Add("list", "List what is in an image, or in one folder of it",
                               [arguments](Talk& talk) { return List(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  command.Optional("PATH", arguments->path, "A folder or file in it; everything by default");
  command.Flag("-l,--long", arguments->isLong,
               "Attributes (d folder, r read-only, h hidden, s system), size and time too");
  command.Flag("-R,--recursive", arguments->recursive, "What is in the folders too");
  command.Flag("--json", arguments->json, "One JSON object a line");
}

}  // namespace capsule::cli
