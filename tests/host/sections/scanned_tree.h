// What lies in an image built at level 0, and in folders of the system, in the same form.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "capsule/host/sections/section_scanner.h"
#include "capsule/partition/record_format.h"
#include "tests/support/bytes.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

// By path, "N:a/b": "<dir>" or the content.
using Tree = std::map<std::string, std::string>;

inline std::string StoredContent(const std::string& image, const host::SectionItem& item) {
  std::string content;
  for (size_t at = item.dataOffset; at < item.offset + item.length;) {
    const size_t length = U16At(image, at + 6);
    content += image.substr(at + kMiniHeaderSize, length);
    at += kMiniHeaderSize + length;
  }
  return content.substr(0, item.entry.FileSize);
}

inline Tree ScannedTree(const std::string& path) {
  const std::string image = ReadFile(path);
  host::SectionScanner scanner(host::ImageFile(host::FileSource(path), path));
  Tree tree;
  for (host::SectionItem item; scanner.Next(&item);) {
    const std::string key = std::to_string(item.section) + ":" + item.path;
    if (item.kind == host::SectionItem::Kind::Directory) tree[key] = "<dir>";
    if (item.kind == host::SectionItem::Kind::File) tree[key] = StoredContent(image, item);
  }
  return tree;
}

// Adds folder `root` as partition `number`.
inline void AddFolder(int number, const std::filesystem::path& root, Tree* tree) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string key =
        std::to_string(number) + ":" + entry.path().lexically_relative(root).string();
    if (entry.is_symlink()) continue;
    if (entry.is_directory()) (*tree)[key] = "<dir>";
    if (entry.is_regular_file()) (*tree)[key] = ReadFile(entry.path().string());
  }
}

inline Tree FolderTree(const std::filesystem::path& root) {
  Tree tree;
  AddFolder(0, root, &tree);
  return tree;
}

}  // namespace capsule::test
