// Turns the tree of file blocks that the exported classes read into a Catalog, level by level, and
// checks what the classes leave to their callers:
// 1. every record group lies between its own offset and the next item of the index, so that no two
//    items share a byte;
// 2. every file and folder that a checked index names is in the tree;
// 3. the paths are those that a checked index tells;
// 4. the pieces of a long name are in order and belong to the short name behind them.
#include <algorithm>
#include <array>
#include <cerrno>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/image_index.h"
#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/path_hash.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/tree/fat_tree.h"
#include "capsule/host/tree/image_open.h"
#include "capsule/host/tree/tree_builder.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/state/library_state.h"

namespace capsule::host {
namespace {

constexpr char kDot[] = ".       .   ";
constexpr char kDotDot[] = "..      .   ";

// What is known of a file block, in breadth-first order: the children of a folder are neighbours.
struct BlockNode {
  std::string name;
  std::string shortName;
  uint32_t parent = 0;
  uint32_t firstChild = 0;
  uint32_t childCount = 0;
  uint32_t offset = 0;
  uint32_t dataOffset = 0;
  uint32_t dataLimit = 0;
  uint32_t size = 0;
  platform::DosDateTime modified;
  uint8_t attributes = 0;
  uint8_t partition = 0;
  bool isDirectory = false;
};

// Adds all below the root `nodes[root]`, which is the partition that came last; `ids` are their
// numbers in the tree.
void AddBelow(const std::vector<BlockNode>& nodes, uint32_t root, TreeBuilder* tree,
              std::vector<uint32_t>* ids) {
  std::vector<std::pair<uint32_t, uint32_t>> levels;  // what comes next in each folder, and its end
  const auto open = [&](const BlockNode& folder) {
    levels.emplace_back(folder.firstChild, folder.firstChild + folder.childCount);
  };
  open(nodes[root]);
  while (!levels.empty()) {
    if (levels.back().first == levels.back().second) {
      levels.pop_back();
      tree->LeaveTo(levels.empty() ? 0 : levels.size() - 1);
      continue;
    }
    const uint32_t at = levels.back().first++;
    const BlockNode& block = nodes[at];
    CatalogNode node;
    node.isDirectory = block.isDirectory;
    node.attributes = block.attributes;
    node.size = block.size;
    node.modified = block.modified;
    node.offset = block.offset;
    node.dataOffset = block.dataOffset;
    node.dataLimit = block.dataLimit;
    (*ids)[at] = tree->Add({block.name, block.shortName, node});
    if (block.isDirectory) open(block);
  }
}

// The class leaves its file and its index open.
struct OpenedFile {
  explicit OpenedFile(const std::string& path) : file(path.c_str()) {}
  ~OpenedFile() {
    file.CloseImageFileHandle();
    ImageIndex::DeleteCurrentInstance();
  }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  CapsuleFile file;
};

// Reads the image in a library state of its own, so that images open side by side.
class ClassReader {
 public:
  explicit ClassReader(const std::string& path) : m_Scope(m_State), m_Opened(path) {
    if (m_Opened.file.GetImageFileHandle() <= 0) {
      ThrowSystemError(path, "cannot open", m_Opened.file.GetLastError());
    }
    Read(path);
  }

  CpsList& Partitions() { return m_Opened.file.GetPartitions(); }

 private:
  void Read(const std::string& path) {
    errno = 0;
    try {
      if (m_Opened.file.ReadImage(0) == 0) return;
    } catch (int) {
      Fail(path, "index cannot be read", errno, "it is damaged");
    }
    const int reason = errno;
    Fail(path,
         "folders of partition " + std::to_string(Partitions().GetCount()) + " cannot be read",
         reason, "a record is damaged or missing");
  }

  // The classes do not tell what they found damaged from what the system could not do.
  [[noreturn]] static void Fail(const std::string& path, const std::string& what, int error,
                                const std::string& damage) {
    const bool isDamage = error == 0 || error == EINVAL;  // the latter for an offset of no file
    if (!isDamage) ThrowSystemError(path, what, error);
    throw Error(path, what + ": " + damage);
  }

  LibraryState m_State;
  ScopedLibraryState m_Scope;
  OpenedFile m_Opened;
};

class CatalogBuilder {
 public:
  CatalogBuilder(const ImageFile& image, const IndexContents& index,
                 std::vector<ImageProblem>* problems)
      : m_image(image), m_strPath(image.Name()), m_Index(index), m_pProblems(problems) {}

  std::unique_ptr<Catalog> Build(CpsList& partitions) {
    const int count = partitions.GetCount();
    for (int i = 0; i < count; ++i) {
      BlockNode root;
      root.isDirectory = true;
      root.attributes = kDirectoryAttribute;
      root.parent = static_cast<uint32_t>(i);
      root.partition = static_cast<uint8_t>(i);
      m_Nodes.push_back(root);
      auto* partition = static_cast<CapsulePartition*>(partitions.GetAt(i));
      m_Lists.push_back(&partition->GetFileBlocks());
      m_Ntfs.push_back(partition->GetPartitionType() == CapsuleDirectoryEntry::DirTypeNtfs);
      m_Starts.push_back(static_cast<uint32_t>(partition->GetStartOffset()));
    }
    for (uint32_t id = 0; id < m_Nodes.size(); ++id) AddChildren(id);
    CheckThatAllAreThere();
    ComparePaths();
    TreeBuilder tree;
    std::vector<uint32_t> ids(m_Nodes.size());
    for (size_t i = 0; i < m_Starts.size(); ++i) {
      tree.BeginPartition(m_Starts[i]);
      AddBelow(m_Nodes, static_cast<uint32_t>(i), &tree, &ids);
    }
    auto catalog = tree.Build();
    for (const auto& [id, reason] : m_Problems) {
      const Entry entry = catalog->At(ids[id]);
      m_pProblems->push_back({catalog->NameForProblem(ids[id]), reason, false, entry.Offset()});
    }
    return catalog;
  }

 private:
  void AddChildren(uint32_t folder) {
    CpsList* list = m_Lists[folder];
    m_Nodes[folder].firstChild = static_cast<uint32_t>(m_Nodes.size());
    const int count = list == nullptr ? 0 : list->GetCount();
    for (int i = 0; i < count; ++i) {
      AddEntry(folder, *static_cast<CapsuleFileBlock*>(list->GetAt(i)));
    }
    m_Nodes[folder].childCount = static_cast<uint32_t>(m_Nodes.size()) - m_Nodes[folder].firstChild;
  }

  void AddEntry(uint32_t folder, CapsuleFileBlock& block) {
    if (m_Ntfs[m_Nodes[folder].partition]) return AddNtfsEntry(folder, block);
    CapsuleDirectoryEntry& entry = block.GetDirectoryEntry();
    const CString& shortText = entry.ShortName();
    CapsuleBuffer& longName = entry.LongFileName();
    const bool hasLongName = longName.GetWrite() != longName.GetRead();
    const _ShortDirEntry& record = entry.EntryInUse();
    BlockNode node = NodeOf(folder, block);
    if (node.isDirectory && !hasLongName && (shortText == kDot || shortText == kDotDot)) return;
    node.dataOffset = static_cast<uint32_t>(block.GetDUPDATAOffset());
    CheckPlace(node, entry.GetRecord()->Header);
    if (hasLongName) SetLongName(longName, record, &node);
    Add(std::move(node), block);
  }

  // The long-name buffer of such an entry holds its names one behind the other: the full name is
  // kept apart.
  void AddNtfsEntry(uint32_t folder, CapsuleFileBlock& block) {
    const CapsuleDirectoryEntry& entry = block.GetDirectoryEntry();
    BlockNode node = NodeOf(folder, block);
    node.isDirectory = entry.NTFSIsDirectory() != 0;
    if (node.isDirectory) node.size = 0;
    node.name = Utf16ToUtf8(entry.NtfsFullName());
    if (!entry.HasNtfsShortName()) node.shortName = node.name;
    node.dataOffset = static_cast<uint32_t>(block.GetNTFSDataBlockStart());
    if (!node.isDirectory && (node.dataOffset <= node.offset || node.dataOffset > node.dataLimit)) {
      Fail(node.offset, "its FILE record reaches to " + Hex(node.dataOffset) +
                            ", the next item begins at " + Hex(node.dataLimit));
    }
    Add(std::move(node), block);
  }

  BlockNode NodeOf(uint32_t folder, CapsuleFileBlock& block) const {
    const _ShortDirEntry& record = block.GetDirectoryEntry().EntryInUse();
    BlockNode node;
    node.isDirectory = (record.Attribute & kDirectoryAttribute) != 0;
    node.parent = folder;
    node.partition = m_Nodes[folder].partition;
    node.attributes = record.Attribute;
    node.size = node.isDirectory ? 0 : record.FileSize;
    node.modified = {record.WriteDate, record.WriteTime};
    node.shortName = ShortNameToBytes(record);
    node.name = node.shortName;
    node.offset = static_cast<uint32_t>(block.GetFileBlockStartOffset());
    node.dataLimit = m_Index.LimitOf(node.offset);
    return node;
  }

  void Add(BlockNode node, CapsuleFileBlock& block) {
    m_Lists.push_back(node.isDirectory ? &block.FileList() : nullptr);
    m_Nodes.push_back(std::move(node));
  }

  void CheckPlace(const BlockNode& node, const _MiniHeader& header) const {
    if (header.Type != kRecordDirectory || header.Length != kDirEntrySize) {
      Fail(node.offset, "type " + std::to_string(header.Type) + ", length " +
                            std::to_string(header.Length) + ": not a directory record");
    }
    if (node.dataOffset <= node.offset || node.dataOffset > node.dataLimit) {
      Fail(node.offset, "its group reaches to " + Hex(node.dataOffset) +
                            ", the next item begins at " + Hex(node.dataLimit));
    }
  }

  void SetLongName(CapsuleBuffer& buffer, const _ShortDirEntry& record, BlockNode* node) {
    const std::string text(buffer.GetRead(), buffer.GetWrite());
    const std::vector<unsigned char> pieces(text.begin(), text.end());
    const std::string name = LongNameToBytes(DecodeLongName(pieces));
    const std::string problem = JudgeChain(*node, record);
    if (problem.empty() && !name.empty()) {
      node->name = name;
      return;
    }
    m_Problems.emplace_back(
        static_cast<uint32_t>(m_Nodes.size()),
        "long name at " + Hex(node->offset) + ": " + (problem.empty() ? "empty" : problem));
  }

  // What is wrong with the long-name records of a group, or nothing.
  std::string JudgeChain(const BlockNode& node, const _ShortDirEntry& record) const {
    std::vector<unsigned char> group(node.dataOffset - node.offset);
    return JudgeLongName(std::span(group).first(m_image.ReadAt(node.offset, group)), record);
  }

  void CheckThatAllAreThere() const {
    std::vector<uint32_t> found;
    for (const BlockNode& node : m_Nodes) found.push_back(node.offset);
    std::sort(found.begin(), found.end());
    for (size_t i = 0; i < m_Ntfs.size(); ++i) {
      if (m_Ntfs[i]) NoteLostEntries(i, found);
    }
    for (const IndexContents::ItemPath& entry : m_Index.entries) {
      const uint32_t offset = entry.offset;
      if (LiesInNtfsSection(offset)) continue;
      if (std::binary_search(found.begin(), found.end(), offset)) continue;
      Fail(offset, "the index names an item here, but it cannot be read");
    }
  }

  // A damaged record can close a folder too early, or name another item, and leave all else in
  // order: then the paths are not those that a checked index tells.
  void ComparePaths() {
    const size_t known = m_Problems.size();
    size_t damaged = 0;  // of m_Problems, which are in the order of nodes
    std::vector<uint64_t> hashes(m_Nodes.size(), kRootPathHash);
    m_PathLengths.assign(m_Nodes.size(), 0);
    for (uint32_t id = 0; id < m_Nodes.size(); ++id) {
      while (damaged < known && m_Problems[damaged].first < id) ++damaged;
      const bool isNamed = damaged == known || m_Problems[damaged].first != id;
      if (m_Lists[id] == nullptr || m_Nodes[id].parent != id) {
        hashes[id] = ComparePath(id, hashes[m_Nodes[id].parent], isNamed);
      }
    }
    std::stable_sort(m_Problems.begin(), m_Problems.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  // The hash of the node's path. An entry with a damaged name lies where the index says.
  uint64_t ComparePath(uint32_t id, uint64_t folder, bool isNamed) {
    BlockNode& node = m_Nodes[id];
    m_PathLengths[id] = m_PathLengths[node.parent] + 1 + node.name.size();
    const uint64_t hash = ChildPathHash(folder, node.name);
    const auto& paths = m_Index.entries;
    const auto stated = std::lower_bound(
        paths.begin(), paths.end(), node.offset,
        [](const IndexContents::ItemPath& item, uint32_t at) { return item.offset < at; });
    const bool isStated = stated != paths.end() && stated->offset == node.offset && stated->isNamed;
    if (!isStated && m_Index.isChecked && !node.name.empty() &&
        m_PathLengths[id] <= kMaxScannedPath) {
      Fail(node.offset, "the index has no name for the entry here");
    }
    if (isStated && !m_Ntfs[node.partition] && stated->isFile == node.isDirectory) {
      Fail(node.offset,
           "the index has a " + std::string(stated->isFile ? "file" : "folder") + " here");
    }
    if (!isStated || stated->path == hash) return hash;
    if (isNamed && stated->folder != folder) {
      Fail(node.offset, "the index names an item of another folder here");
    }
    if (isNamed) {
      m_Problems.emplace_back(id, "name at " + Hex(node.offset) + ": the index tells another");
      node.name = node.shortName;
    }
    return stated->path;
  }

  // Where the section that begins at `start` ends.
  uint32_t EndOfSection(uint32_t start) const {
    const auto next = std::upper_bound(m_Index.sections.begin(), m_Index.sections.end(), start);
    return next == m_Index.sections.end() ? m_Index.end : *next;
  }

  bool LiesInNtfsSection(uint32_t offset) const {
    for (size_t i = 0; i < m_Ntfs.size(); ++i) {
      if (m_Ntfs[i] && offset >= m_Starts[i] && offset < EndOfSection(m_Starts[i])) return true;
    }
    return false;
  }

  // Folders of NTFS partitions know how many children they have; what comes when all are full has
  // no place in the tree. The first item is the root itself.
  void NoteLostEntries(size_t partition, const std::vector<uint32_t>& found) const {
    const auto& items = m_Index.items;
    auto item = std::lower_bound(items.begin(), items.end(), m_Starts[partition]);
    const uint32_t end = EndOfSection(m_Starts[partition]);
    if (item != items.end()) ++item;
    for (; item != items.end() && *item < end; ++item) {
      if (std::binary_search(found.begin(), found.end(), *item) || !IsNtfsEntryAt(*item)) continue;
      m_pProblems->push_back({std::to_string(partition) + ":/",
                              "FILE record at " + Hex(*item) + ": no folder has a place for it",
                              true});
    }
  }

  bool IsNtfsEntryAt(uint32_t offset) const {
    std::array<unsigned char, kNtfsHeaderSize> bytes{};
    m_image.ReadAt(offset, bytes);
    const uint32_t type = DecodeNtfsHeader(bytes).RecordType;
    return BeginsNtfsEntry(type) && type != kNtfsEnd;
  }

  [[noreturn]] void Fail(uint32_t offset, const std::string& what) const {
    throw Error(m_strPath, "directory record at " + Hex(offset) + ": " + what, offset);
  }

  ImageFile m_image;
  const std::string& m_strPath;
  const IndexContents& m_Index;
  std::vector<ImageProblem>* m_pProblems;
  std::vector<BlockNode> m_Nodes;
  std::vector<CpsList*> m_Lists;      // by node; null for files
  std::vector<bool> m_Ntfs;           // by partition
  std::vector<uint32_t> m_Starts;     // of the sections, by partition
  std::vector<size_t> m_PathLengths;  // by node
  std::vector<std::pair<uint32_t, std::string>> m_Problems;
};

}  // namespace

std::unique_ptr<Catalog> ReadCatalog(const ImageFile& image, const DecodedHeader& header,
                                     const IndexContents& index,
                                     std::vector<ImageProblem>* problems) {
  const bool hasNtfs = std::any_of(header.partitions.begin(), header.partitions.end(),
                                   [](const _Partition& p) { return p.SystemId == kSystemIdNtfs; });
  if (!hasNtfs && index.isInOrder) return ReadFatTree(image, header, index, problems);
  ClassReader reader(image.Name());
  return CatalogBuilder(image, index, problems).Build(reader.Partitions());
}

}  // namespace capsule::host
