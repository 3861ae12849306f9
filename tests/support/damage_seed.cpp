#include "tests/support/damage_seed.h"

#include <algorithm>

#include "capsule/platform/file.h"
#include "tests/support/entries.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

using host::SectionItem;
using Kind = SectionItem::Kind;

namespace {

// A damaged entry may state any size.
std::string ReadByPieces(const host::Image& image, const host::Entry& entry) {
  std::string read;
  std::vector<unsigned char> piece(size_t{32} << 10);
  host::FileReader reader = image.OpenFile(entry);
  do {
    const size_t got = reader.Read(read.size(), piece);
    read.append(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got));
  } while (read.size() < entry.Size());
  return read;
}

}  // namespace

Contents ReadContents(const host::Image& image) {
  Contents contents;
  ForEachEntry(image, [&](const host::Entry& entry) {
    if (entry.IsDirectory()) return;
    try {
      contents.emplace(entry.Path(), ReadByPieces(image, entry));
    } catch (const host::Error&) {
      contents.emplace(entry.Path(), kUnread);
    }
  });
  return contents;
}

DamageSeed::DamageSeed(const std::string& path) : m_bytes(ReadFile(path)) {
  const host::Image image(path);
  m_contents = ReadContents(image);
  m_checked = image.Info().checked;
  m_indexOffset = static_cast<size_t>(image.Info().indexOffset);
  const int descriptor = platform::OpenForReading(path.c_str());
  host::SectionScanner scanner(host::ImageFile(descriptor, path));
  for (SectionItem item; scanner.Next(&item);) m_items.push_back(item);
  platform::Close(descriptor);
}

std::set<std::string> DamageSeed::Untouched(size_t from, size_t to) const {
  std::set<std::string> paths;
  std::set<std::string> hitFolders;
  std::vector<std::string> open{""};
  for (const SectionItem& item : m_items) {
    const std::string root = std::to_string(item.section) + ":/";
    if (item.kind == Kind::Section) open.assign(1, root);
    if (item.isNtfs) open.resize(std::min(open.size(), item.depth + 1));
    if (item.kind == Kind::Directory && !item.isRoot) open.push_back(root + item.path + "/");
    const bool isFile = item.kind == Kind::File;
    if (item.offset < to && item.offset + item.length > from) {
      if (!isFile && item.kind != Kind::Trailer) hitFolders.insert(open.back());
    } else if (isFile) {
      paths.insert(root + item.path);
    }
    if (item.kind == Kind::ZeroEntry && open.size() > 1) open.pop_back();
  }
  std::erase_if(paths, [&](const std::string& path) {
    return std::any_of(hitFolders.begin(), hitFolders.end(),
                       [&](const std::string& folder) { return path.starts_with(folder); });
  });
  return paths;
}

}  // namespace capsule::test
