// The index hands out the places of entries; each is read there, and the flat sequence becomes a
// tree as in the class interface. In FAT-style sections the group of a folder opens it, "." and
// ".." open nothing, a zero entry closes one folder. In NTFS sections folders are closed by
// counting.
//
// 1. A record group lies between its own offset and the next item of the index, so that no two
//    items share a byte.
// 2. What a checked index names is an entry, of the kind and at the path that it tells. Only
//    entries of NTFS sections may be missing: they are told to be left out.
// 3. A FAT-style section ends with the group that reaches the next one.
#include "capsule/host/tree/indexed_tree.h"

#include <algorithm>
#include <optional>
#include <span>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/path_hash.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/tree/ntfs_section.h"
#include "capsule/host/tree/tree_builder.h"
#include "capsule/partition/entry_group.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

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

const std::vector<uint32_t>& InOrder(const std::vector<uint32_t>& sorted,
                                     const std::vector<uint32_t>& asNamed) {
  return asNamed.empty() ? sorted : asNamed;
}

class IndexedTreeReader {
 public:
  IndexedTreeReader(const ImageFile& image, const DecodedHeader& header, const IndexContents& index,
                    std::vector<ImageProblem>* problems)
      : m_path(image.Name()),
        m_header(header),
        m_index(index),
        m_items(InOrder(index.items, index.itemsAsNamed)),
        m_sections(InOrder(index.sections, index.sectionsAsNamed)),
        m_problems(problems),
        m_window(image) {}

  std::unique_ptr<Catalog> Read() {
    for (size_t i = 0; i < m_header.partitions.size(); ++i) {
      m_isNtfs = IsNtfs(i);
      m_isNtfs ? ReadNtfsSection(i) : ReadFatSection(i);
    }
    for (; m_next < m_items.size(); ++m_next) PassNothing(m_items[m_next]);
    return m_tree.Build();
  }

 private:
  struct OpenFolder {
    uint64_t pathHash;
    size_t pathLength;
  };

  bool IsNtfs(size_t number) const { return m_header.partitions[number].SystemId == kSystemIdNtfs; }

  // Where the section ends, by the order of the index.
  uint64_t NextSection(size_t number) const {
    return number + 1 < m_sections.size() ? m_sections[number + 1] : UINT64_MAX;
  }

  void BeginPartition(uint32_t offset) {
    m_tree.BeginPartition(offset);
    m_open.assign(1, {kRootPathHash, 0});
  }

  void ReadFatSection(size_t number) {
    if (number >= m_sections.size()) {
      FailToRead(number, "the index has no section for it");
    }
    BeginPartition(m_sections[number]);
    const uint64_t next = NextSection(number);
    uint64_t end = 0;
    while (m_next < m_items.size() && end < next) end = ReadItem(m_items[m_next++]);
  }

  void ReadNtfsSection(size_t number) {
    BeginPartition(number < m_sections.size() ? m_sections[number] : UINT32_MAX);
    NtfsSection section(m_window, m_index.end, m_header.compressed, m_path, number);
    if (m_next == m_items.size()) FailToRead(number, "the index has no item for it");
    const uint64_t next = NextSection(number);
    const auto isInside = [&] { return m_next < m_items.size() && m_items[m_next] < next; };
    for (; isInside() && section.Read(m_items[m_next]); ++m_next) {
      section.IsRoot() ? PassNothing(m_items[m_next]) : AddNtfsEntry(m_items[m_next], section);
    }
    for (; isInside(); ++m_next) LeaveOut(m_items[m_next], number);
  }

  void AddNtfsEntry(uint32_t offset, const NtfsSection& section) {
    const NtfsEntry& entry = section.Entry();
    LeaveTo(section.Depth());
    CatalogNode node = NodeOf(offset, entry.entry, entry.isDirectory);
    node.dataOffset = static_cast<uint32_t>(entry.dataOffset);
    if (!node.isDirectory && node.dataOffset > node.dataLimit) {
      Fail(offset, "its FILE record reaches to " + Hex(node.dataOffset) +
                       ", the next item begins at " + Hex(node.dataLimit));
    }
    Add(node, false, entry.shortName, entry.name, {});
  }

  // Folders of NTFS partitions know how many children they have; what comes when all are full has
  // no place in the tree.
  void LeaveOut(uint32_t offset, size_t partition) {
    PassNothing(offset);
    const auto header = NtfsRecordAt(m_window, offset, m_index.end);
    if (!header || !LiesInSection(offset, partition) || !BeginsNtfsEntry(header->RecordType) ||
        header->RecordType == kNtfsEnd)
      return;
    m_problems->push_back({std::to_string(partition) + ":/",
                           "FILE record at " + Hex(offset) + ": no folder has a place for it",
                           true});
  }

  // What a checked index says of the item, if it must be an entry. Most items are asked for in the
  // order of their offsets.
  const IndexContents::ItemPath* EntryAt(uint32_t offset) {
    const auto& entries = m_index.entries;
    if (m_entry < entries.size() && entries[m_entry].offset == offset) return &entries[m_entry];
    if (m_entry + 1 < entries.size() && entries[m_entry + 1].offset == offset) {
      return &entries[++m_entry];
    }
    const auto entry = std::lower_bound(
        entries.begin(), entries.end(), offset,
        [](const IndexContents::ItemPath& item, uint32_t at) { return item.offset < at; });
    if (entry == entries.end() || entry->offset != offset) return nullptr;
    m_entry = static_cast<size_t>(entry - entries.begin());
    return &*entry;
  }

  // An item that is no entry of the tree.
  void PassNothing(uint32_t offset) {
    if (EntryAt(offset) == nullptr || LiesInNtfsSection(offset)) return;
    Fail(offset, "the index names an item here, but it cannot be read");
  }

  bool LiesInNtfsSection(uint32_t offset) const {
    for (size_t i = 0; i < m_header.partitions.size(); ++i) {
      if (IsNtfs(i) && LiesInSection(offset, i)) return true;
    }
    return false;
  }

  bool LiesInSection(uint32_t offset, size_t number) const {
    if (number >= m_sections.size() || offset < m_sections[number]) return false;
    const auto& sorted = m_index.sections;
    const auto next = std::upper_bound(sorted.begin(), sorted.end(), m_sections[number]);
    return offset < (next == sorted.end() ? m_index.end : *next);
  }

  // Reads the record group at `offset`. Returns where the group ends.
  uint64_t ReadItem(uint32_t offset) {
    if (!TakeGroup(m_window.At(offset, kLongestGroup), &m_group)) {
      Fail(offset, "its group cannot be read");
    }
    if (m_group.records.IsListed()) {
      AddEntry(offset, m_group);
    } else {
      PassNothing(offset);
      if (m_group.records.Role() == EntryRole::Closing) Leave();
    }
    return offset + m_group.size;
  }

  // Gives what IndexContents::LimitOf gives, but without a search where the items are in order.
  uint32_t LimitOf(uint32_t offset) const {
    if (!m_index.itemsAsNamed.empty()) return m_index.LimitOf(offset);
    size_t next = m_next;
    while (next < m_items.size() && m_items[next] <= offset) ++next;
    const auto& sections = m_index.sections;
    const auto section = std::upper_bound(sections.begin(), sections.end(), offset);
    return std::min(next == m_items.size() ? m_index.end : m_items[next],
                    section == sections.end() ? m_index.end : *section);
  }

  CatalogNode NodeOf(uint32_t offset, const _ShortDirEntry& entry, bool isDirectory) const {
    CatalogNode node;
    node.isDirectory = isDirectory;
    node.attributes = entry.Attribute;
    node.size = node.isDirectory ? 0 : entry.FileSize;
    node.modified = {entry.WriteDate, entry.WriteTime};
    node.offset = offset;
    node.dataLimit = LimitOf(offset);
    return node;
  }

  void AddEntry(uint32_t offset, const Group& group) {
    const EntryRole role = group.records.Role();
    CatalogNode node = NodeOf(offset, group.records.Entry(), role != EntryRole::File);
    node.dataOffset = static_cast<uint32_t>(offset + group.size);
    RequirePlace(node, group.header);
    const std::string shortName = group.records.ShortName();
    std::string name = shortName;
    std::string problem;
    if (group.records.HasLongName()) problem = TakeLongName(offset, group.records, &name);
    Add(node, role == EntryRole::Dot, shortName, std::move(name), std::move(problem));
  }

  // `problem`: what is wrong with its name, which is `shortName` then.
  void Add(const CatalogNode& node, bool opensNothing, const std::string& shortName,
           std::string name, std::string problem) {
    const uint64_t hash = ExpectPath(node, problem.empty(), shortName, &name, &problem);
    const uint32_t id = m_tree.Add({name, shortName, node, opensNothing});
    if (!problem.empty()) {
      m_problems->push_back({m_tree.SoFar().NameForProblem(id), problem, false, node.offset});
    }
    if (node.isDirectory && !opensNothing) m_open.push_back({hash, PathLength(name)});
  }

  // What is wrong with the long name, which otherwise becomes `name`.
  static std::string TakeLongName(uint32_t offset, const EntryGroup& group, std::string* name) {
    const std::string problem = JudgeLongName(group);
    if (!problem.empty()) return "long name at " + Hex(offset) + ": " + problem;
    *name = group.LongName();
    return {};
  }

  // Returns the hash of the entry's path. An entry whose name is damaged is taken to lie where the
  // index says.
  uint64_t ExpectPath(const CatalogNode& node, bool isNamed, const std::string& shortName,
                      std::string* name, std::string* problem) {
    const uint64_t folder = m_open.back().pathHash;
    const uint64_t hash = HashesOfPath(*name, {folder, folder}).path;
    if (!m_index.isChecked) return hash;
    const auto* stated = EntryAt(node.offset);
    if (stated == nullptr || !stated->isNamed) {
      if (!name->empty() && PathLength(*name) <= kMaxScannedPath) {
        Fail(node.offset, "the index has no name for the entry here");
      }
      return hash;
    }
    if (!m_isNtfs && stated->isFile == node.isDirectory) {
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

  void Leave() { LeaveTo(m_tree.Depth() == 0 ? 0 : m_tree.Depth() - 1); }

  void LeaveTo(size_t depth) {
    m_tree.LeaveTo(depth);
    m_open.resize(m_tree.Depth() + 1);
  }

  void RequirePlace(const CatalogNode& node, const _MiniHeader& header) const {
    if (header.Type != kRecordDirectory || header.Length != kDirEntrySize) {
      Fail(node.offset, "type " + std::to_string(header.Type) + ", length " +
                            std::to_string(header.Length) + ": not a directory record");
    }
    if (node.dataOffset > node.dataLimit) {
      Fail(node.offset, "its group reaches to " + Hex(node.dataOffset) +
                            ", the next item begins at " + Hex(node.dataLimit));
    }
  }

  [[noreturn]] void FailToRead(size_t partition, const std::string& why) const {
    throw Error(m_path,
                "folders of partition " + std::to_string(partition) + " cannot be read: " + why);
  }

  [[noreturn]] void Fail(uint32_t offset, const std::string& what) const {
    throw Error(m_path, "directory record at " + Hex(offset) + ": " + what, offset);
  }

  const std::string& m_path;
  const DecodedHeader& m_header;
  const IndexContents& m_index;
  const std::vector<uint32_t>& m_items;     // as readers take them
  const std::vector<uint32_t>& m_sections;  // the same
  std::vector<ImageProblem>* m_problems;
  FileWindow m_window;
  Group m_group;  // the one that was read last
  TreeBuilder m_tree;
  std::vector<OpenFolder> m_open;
  size_t m_next = 0;   // of the items
  size_t m_entry = 0;  // of the index, found last
  bool m_isNtfs = false;
};

}  // namespace

std::unique_ptr<Catalog> ReadIndexedTree(const ImageFile& image, const DecodedHeader& header,
                                         const IndexContents& index,
                                         std::vector<ImageProblem>* problems) {
  return IndexedTreeReader(image, header, index, problems).Read();
}

}  // namespace capsule::host
