// Catalog is the tree of an open image: what Entry handles look into.
//
// 1. Nodes lie in the order in which they were added: a parent comes before its children, and the
//    children of a folder are linked in image order.
// 2. The names of a folder are sorted when one is first looked up in it, by name ignoring ASCII
//    case, then by exact name, so that one binary search finds either; no order of names makes it
//    slower. Listing a tree sorts nothing.
//
// Const operations may be used from many threads.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "capsule/host/entry.h"
#include "capsule/host/tree/name_store.h"
#include "capsule/platform/dos_time.h"

namespace capsule::host {

struct CatalogNode {
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  uint32_t parent = 0;  // a root is its own
  uint32_t firstChild = kNone;
  uint32_t nextSibling = kNone;
  uint32_t childCount = 0;
  uint32_t offset = 0;      // of the record group
  uint32_t dataOffset = 0;  // first byte behind it: where a file's data records begin
  uint32_t dataLimit = 0;   // where the next item begins: its records reach no further
  uint32_t size = 0;
  platform::DosDateTime modified;
  uint32_t name = 0;  // in the store; the short name lies behind it
  uint16_t nameLength = 0;
  uint8_t shortLength = 0;
  uint8_t attributes = 0;
  uint8_t partition = 0;
  bool hasShortName : 1 = false;  // otherwise it is the name
  bool isDirectory : 1 = false;
  bool isPlaceholder : 1 = false;  // a folder made for what is left of a lost one
};
static_assert(sizeof(CatalogNode) == 48, "images have very many");

class Catalog {
 public:
  const CatalogNode& Node(uint32_t id) const { return m_nodes[id]; }
  uint32_t Size() const { return static_cast<uint32_t>(m_nodes.size()); }
  Entry At(uint32_t id) const { return Entry(this, id); }
  static const Catalog& Of(const Entry& entry) { return *entry.m_catalog; }

  uint32_t Roots() const { return static_cast<uint32_t>(m_roots.size()); }
  uint32_t Root(uint32_t partition) const { return m_roots[partition]; }
  bool IsRoot(uint32_t id) const { return m_roots[m_nodes[id].partition] == id; }

  std::string_view Name(uint32_t id) const;
  std::string_view ShortName(uint32_t id) const;

  // Whether what follows lies in it, as it does not behind "." and "..", whatever their long names.
  bool OpensFolder(uint32_t id) const {
    return m_nodes[id].isDirectory && ShortName(id) != "." && ShortName(id) != "..";
  }

  // Where the records of all entries and sections begin, ascending, with their numbers.
  std::vector<std::pair<uint32_t, uint32_t>> Places() const;

  // What to call an entry in a list of problems: its path, or the place of its records where that
  // is longer than kMaxScannedPath, so that deep folders do not make such a list grow with the
  // square of the image.
  std::string NameForProblem(uint32_t id) const;

  // The child of folder `parent` called `name`: the long name exactly, else the short name exactly,
  // else either ignoring ASCII case; of several the first by byte order, then by image order.
  std::optional<uint32_t> FindChild(uint32_t parent, std::string_view name) const;

  // Whether an earlier child of the same folder has exactly the same long name.
  bool IsDuplicate(uint32_t id) const;

 private:
  friend class TreeBuilder;

  struct Key {
    uint32_t node;
    bool isShort;
  };

  // The names of one folder.
  struct Directory {
    std::vector<Key> keys;             // by invariant 2
    std::vector<uint32_t> duplicates;  // ascending
  };

  std::string_view Text(const Key& key) const {
    return key.isShort ? ShortName(key.node) : Name(key.node);
  }
  const Directory& DirectoryOf(uint32_t folder) const;
  Directory SortNames(uint32_t folder) const;

  std::deque<CatalogNode> m_nodes;
  std::vector<uint32_t> m_roots;
  NameStore m_names;
  mutable std::shared_mutex m_lock;  // guards m_directories
  mutable std::unordered_map<uint32_t, Directory> m_directories;
};

}  // namespace capsule::host
