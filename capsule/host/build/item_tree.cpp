// Paths whose segments end with a zero byte sort as a walk meets them: a folder, then all that is
// in it, names in byte order. So the items lie in one map, and the walk is a pass over it, with a
// walk of the system's folder behind each item that stands for one.
#include "capsule/host/build/item_tree.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/image_file.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/short_names.h"

namespace capsule::host {
namespace {

constexpr int64_t kEarliest = 315532800;  // 1980-01-01
constexpr uint8_t kKnownAttributes = 0x27;

// Where the last segment of a path, which is not empty, begins.
size_t NameBegin(const std::string& path) { return path.rfind('\0', path.size() - 2) + 1; }

std::string Above(const std::string& path) { return path.substr(0, NameBegin(path)); }

std::string NameOf(const std::string& path) {
  return path.substr(NameBegin(path), path.size() - 1 - NameBegin(path));
}

std::string Joined(std::string path) {
  if (!path.empty()) path.pop_back();
  std::replace(path.begin(), path.end(), '\0', '/');
  return path;
}

bool IsFolder(const BuildItem& item) { return item.source.empty() && !item.bytes; }

void SetTime(int64_t seconds, platform::FileStatus* status) {
  status->birth = status->access = status->modification = {seconds, 0};
}

platform::FileStatus StatusFor(const BuildItem& item) {
  platform::FileStatus status;
  status.kind = item.bytes ? platform::FileKind::Regular : platform::FileKind::Directory;
  status.writable = true;
  status.mode = item.bytes ? 0644 : 0755;
  status.links = 1;
  status.size = item.bytes ? ImageFile(item.bytes, item.path).Size() : 0;
  SetTime(item.modified.value_or(kEarliest), &status);
  return status;
}

}  // namespace

ItemTree::ItemTree(const std::string& image, const std::vector<BuildItem>& items,
                   SourceWalk::Filter filter, Relief relief)
    : m_image(image), m_filter(std::move(filter)), m_relief(std::move(relief)) {
  for (const BuildItem& item : items) Put(item);
  for (const auto& [path, item] : m_items) {
    Path above = Above(path);
    // Folders that nobody gave.
    for (; !above.empty() && !m_items.contains(above); above = Above(above)) m_items[above] = {};
    if (above.empty() || IsFolder(m_items[above])) continue;
    throw Error(ErrorKind::Exists, m_image, Joined(path) + ": lies in what is given another way");
  }
  NameAll();
  m_next = m_items.begin();
}

void ItemTree::Put(const BuildItem& item) {
  const auto refuse = [&](ErrorKind kind, const std::string& reason) {
    throw Error(kind, m_image, item.path + ": " + reason);
  };
  Path path = item.path + '/';
  if (path.find('\0') != path.npos) refuse(ErrorKind::Misuse, "is no path in an image");
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = path.find('/', begin);
    const auto segment = std::string_view(path).substr(begin, end - begin);
    if (segment.empty() || segment == "." || segment == "..") {
      refuse(ErrorKind::Misuse, "is no path in an image");
    }
    if (const char* problem = NameProblem(segment)) refuse(ErrorKind::Unsupported, problem);
    path[end] = '\0';
    begin = end + 1;
  }
  if (!item.source.empty() && item.bytes) refuse(ErrorKind::Misuse, "has a source and bytes");
  if ((item.attributes.value_or(0) & ~kKnownAttributes) != 0) {
    refuse(ErrorKind::Misuse, "has attributes that cannot be given");
  }
  if (!m_items.emplace(std::move(path), item).second) refuse(ErrorKind::Exists, "is given twice");
}

// Gives every name its alias, which the names of its folder decide.
void ItemTree::NameAll() {
  std::map<Path, std::vector<std::string>> names;
  for (const auto& [path, item] : m_items) {
    names[Above(path)].push_back(NameOf(path));
  }
  for (auto& [path, list] : names) {
    Folder& folder = m_folders[path];
    folder.status = StatusFor(path.empty() ? BuildItem{} : m_items[path]);
    const size_t count = list.size();
    folder.aliases = platform::MakeAliases(std::move(list), platform::AliasPolicy::Exact);
    if (folder.aliases.size() == count) continue;
    throw Error(ErrorKind::Unsupported, m_image, Joined(path) + ": has too many items");
  }
}

bool ItemTree::Next(SourceItem* item) {
  if (m_walk) {
    if (NextBelow(item)) return true;
    m_walk.reset();
  }
  if (m_next == m_items.end()) return false;
  const auto& [path, from] = *m_next++;
  const Folder& folder = m_folders[Above(path)];
  *item = SourceItem();
  item->relative = item->path = Joined(path);
  item->folder = folder.status;
  item->alias = folder.aliases.at(NameOf(path));
  item->attributes = from.attributes;
  if (!from.source.empty()) {
    OpenSystemItem(from, item);
    return true;
  }
  item->kind = from.bytes ? SourceItem::Kind::File : SourceItem::Kind::Folder;
  item->status = StatusFor(from);
  item->bytes = from.bytes;
  return true;
}

void ItemTree::OpenSystemItem(const BuildItem& from, SourceItem* item) {
  item->path = from.source.string();
  const auto status = platform::Status(item->path);
  if (!status) ThrowSystemError(item->path, "", errno);
  item->status = *status;
  if (status->kind == platform::FileKind::Directory) {
    item->kind = SourceItem::Kind::Folder;
    m_below = item->relative + "/";
    const auto filter = [this](const std::string& name, const std::string& relative) {
      return m_filter && m_filter(name, m_below + relative);
    };
    m_walk.emplace(item->path, filter, m_relief);
  } else if (status->kind == platform::FileKind::Regular) {
    item->file = WithRelief(m_relief, [&] {
      return platform::ScopedDescriptor(platform::OpenForReading(item->path.c_str()));
    });
    const auto opened = item->file ? platform::StatusOf(item->file.Get()) : std::nullopt;
    if (!opened) ThrowSystemError(item->path, "", errno);
    item->status = *opened;
    item->stamp = platform::StampOf(*opened);
  } else {
    throw Error(ErrorKind::Unsupported, item->path, "is neither a file nor a folder");
  }
  if (from.modified) SetTime(*from.modified, &item->status);
}

bool ItemTree::NextBelow(SourceItem* item) {
  if (!m_walk->Next(item)) return false;
  item->relative = m_below + item->relative;
  return true;
}

}  // namespace capsule::host
