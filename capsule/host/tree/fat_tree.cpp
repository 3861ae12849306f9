// The index hands out the places of record groups; each group is read there, and the flat sequence
// becomes a tree as in the class interface: the group of a folder opens it, "." and ".." open
// nothing, a zero entry closes one folder.
//
// 1. A record group lies between its own offset and the next item of the index, so that no two
// items
//    share a byte.
// 2. What a checked index names is an entry, of the kind and at the path that it tells.
// 3. A section ends with the group that reaches the next one.
#include "capsule/host/tree/fat_tree.h"

#include <span>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/path_hash.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/tree/tree_builder.h"
#include "capsule/partition/entry_group.h"

namespace capsule::host {
namespace {

// The records of one entry, as they lie in the image.
struct Group {
  EntryGroup records;
  _MiniHeader header;  // of the short entry
  size_t size;         // bytes
};

// Reads the group at the front of `bytes`. False when they end before it does, or its chain of
// long-name records is none.
bool TakeGroup(std::span<const unsigned char> bytes, Group* group) {
  group->records.Clear();
  for (group->size = kDirRecordSize; group->size <= bytes.size(); group->size += kDirRecordSize) {
    const auto record = bytes.first(group->size).last<kDirRecordSize>();
    group->header = DecodeMiniHeader(record.first<kMiniHeaderSize>());
    if (group->records.HasLongName() && group->header.Type != kRecordDirectory) return false;
    const auto taken = group->records.Take(record.last<kDirEntrySize>());
    if (taken != EntryGroup::Taken::Piece) return taken == EntryGroup::Taken::Entry;
  }
  return false;
}

class FatTreeReader {
 public:
  FatTreeReader(const ImageFile& image, const IndexContents& index,
                std::vector<ImageProblem>* problems)
      : m_path(image.Name()), m_index(index), m_problems(problems), m_window(image) {}

  std::unique_ptr<Catalog> Read(size_t sections) {
    for (size_t i = 0; i < sections; ++i) ReadSection(i);
    for (; m_next < m_index.items.size(); ++m_next) {
      if (EntryAt(m_index.items[m_next]) != nullptr) FailToRead(m_index.items[m_next]);
    }
    return m_tree.Build();
  }

 private:
  struct OpenFolder {
    uint64_t pathHash;
    size_t pathLength;
  };

  void ReadSection(size_t number) {
    const auto& starts = m_index.sections;
    if (number >= starts.size()) {
      throw Error(m_path, "folders of partition " + std::to_string(number) +
                              " cannot be read: the index has no section for it");
    }
    const uint64_t next = number + 1 < starts.size() ? starts[number + 1] : UINT64_MAX;
    m_tree.BeginPartition(starts[number]);
    m_open.assign(1, {kRootPathHash, 0});
    uint64_t end = 0;
    while (m_next < m_index.items.size() && end < next) end = ReadItem(m_index.items[m_next++]);
  }

  // What a checked index says of the item, if it must be an entry. Items come in ascending order.
  const IndexContents::ItemPath* EntryAt(uint32_t offset) {
    const auto& entries = m_index.entries;
    while (m_entry < entries.size() && entries[m_entry].offset < offset) ++m_entry;
    const bool isThere = m_entry < entries.size() && entries[m_entry].offset == offset;
    return isThere ? &entries[m_entry] : nullptr;
  }

  // Where its group ends.
  uint64_t ReadItem(uint32_t offset) {
    if (!TakeGroup(m_window.At(offset, kLongestGroup), &m_group)) {
      Fail(offset, "its group cannot be read");
    }
    const auto* stated = EntryAt(offset);
    if (m_group.records.IsListed()) {
      AddEntry(offset, m_group, stated);
    } else {
      if (stated != nullptr) FailToRead(offset);
      if (m_group.records.Role() == EntryRole::Closing) Leave();
    }
    return offset + m_group.size;
  }

  void AddEntry(uint32_t offset, const Group& group, const IndexContents::ItemPath* stated) {
    const _ShortDirEntry& entry = group.records.Entry();
    CatalogNode node;
    node.isDirectory = group.records.Role() != EntryRole::File;
    node.attributes = entry.Attribute;
    node.size = node.isDirectory ? 0 : entry.FileSize;
    node.modified = {entry.WriteDate, entry.WriteTime};
    node.offset = offset;
    node.dataOffset = static_cast<uint32_t>(offset + group.size);
    node.dataLimit = m_index.LimitOf(offset);
    CheckPlace(node, group.header);
    const std::string shortName = group.records.ShortName();
    std::string name = shortName;
    std::string problem;
    if (group.records.HasLongName()) problem = TakeLongName(group.records, &name);
    const uint64_t hash = ComparePath(node, stated, problem.empty(), shortName, &name, &problem);
    const EntryRole role = group.records.Role();
    const uint32_t id = m_tree.Add({name, shortName, node, role == EntryRole::Dot});
    if (!problem.empty()) {
      m_problems->push_back({m_tree.SoFar().NameForProblem(id), problem, false, offset});
    }
    if (role == EntryRole::Folder) m_open.push_back({hash, PathLength(name)});
  }

  // What is wrong with the long name, which otherwise becomes `name`.
  std::string TakeLongName(const EntryGroup& group, std::string* name) {
    std::string problem = JudgeLongName(group);
    if (problem.empty()) {
      *name = group.LongName();
      return {};
    }
    return "long name at " + Hex(m_index.items[m_next - 1]) + ": " + problem;
  }

  // The hash of the entry's path. One whose name is damaged lies where the index says.
  uint64_t ComparePath(const CatalogNode& node, const IndexContents::ItemPath* stated, bool isNamed,
                       const std::string& shortName, std::string* name, std::string* problem) {
    const uint64_t folder = m_open.back().pathHash;
    const uint64_t hash = ChildPathHash(folder, *name);
    if (!m_index.isChecked) return hash;
    if (stated == nullptr || !stated->isNamed) {
      if (!name->empty() && PathLength(*name) <= kMaxScannedPath) {
        Fail(node.offset, "the index has no name for the entry here");
      }
      return hash;
    }
    if (stated->isFile == node.isDirectory) {
      Fail(node.offset,
           "the index has a " + std::string(stated->isFile ? "file" : "folder") + " here");
    }
    if (stated->path == hash) return hash;
    if (isNamed && stated->folder != folder) {
      Fail(node.offset, "the index names an item of another folder here");
    }
    if (isNamed) {
      *problem = "name at " + Hex(node.offset) + ": the index tells another";
      *name = shortName;
    }
    return stated->path;
  }

  size_t PathLength(std::string_view name) const {
    return m_open.back().pathLength + 1 + name.size();
  }

  void Leave() {
    m_tree.Leave();
    if (m_open.size() > 1) m_open.pop_back();
  }

  void CheckPlace(const CatalogNode& node, const _MiniHeader& header) const {
    if (header.Type != kRecordDirectory || header.Length != kDirEntrySize) {
      Fail(node.offset, "type " + std::to_string(header.Type) + ", length " +
                            std::to_string(header.Length) + ": not a directory record");
    }
    if (node.dataOffset > node.dataLimit) {
      Fail(node.offset, "its group reaches to " + Hex(node.dataOffset) +
                            ", the next item begins at " + Hex(node.dataLimit));
    }
  }

  [[noreturn]] void FailToRead(uint32_t offset) const {
    Fail(offset, "the index names an item here, but it cannot be read");
  }

  [[noreturn]] void Fail(uint32_t offset, const std::string& what) const {
    throw Error(m_path, "directory record at " + Hex(offset) + ": " + what, offset);
  }

  const std::string& m_path;
  const IndexContents& m_index;
  std::vector<ImageProblem>* m_problems;
  FileWindow m_window;
  Group m_group;  // the one that was read last
  TreeBuilder m_tree;
  std::vector<OpenFolder> m_open;
  size_t m_next = 0;   // of the items of the index
  size_t m_entry = 0;  // of those that must be entries
};

}  // namespace

std::unique_ptr<Catalog> ReadFatTree(const ImageFile& image, const DecodedHeader& header,
                                     const IndexContents& index,
                                     std::vector<ImageProblem>* problems) {
  return FatTreeReader(image, index, problems).Read(header.partitions.size());
}

}  // namespace capsule::host
