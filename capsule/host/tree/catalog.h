// Catalog is the tree of an open image as flat tables: what Entry handles look into.
//
// 1. Nodes lie in breadth-first order, the roots of the partitions first: the children of a folder
//    are neighbours, in image order, and a parent comes before its children.
// 2. Keys are sorted within the slice of their folder by name ignoring ASCII case, then by exact
//    name, so one binary search finds either; no order of names makes it slower.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/host/entry.h"
#include "capsule/platform/dos_time.h"

namespace capsule::host {

struct CatalogNode {
  std::string name;
  std::string shortName;
  uint32_t parent = 0;
  uint32_t firstChild = 0;
  uint32_t childCount = 0;
  uint32_t offset = 0;      // of the record group
  uint32_t dataOffset = 0;  // first byte behind it: where a file's data records begin
  uint32_t dataLimit = 0;   // where the next item begins: its records reach no further
  uint32_t size = 0;
  platform::DosDateTime modified;
  uint8_t attributes = 0;
  uint8_t partition = 0;
  bool isDirectory = false;
  bool isDuplicate = false;
  bool isPlaceholder = false;  // a folder made for what is left of a lost one
};

class Catalog {
 public:
  // `nodes` in the order of invariant 1, the first `roots` of them being the roots.
  Catalog(std::vector<CatalogNode> nodes, uint32_t roots);

  const CatalogNode& Node(uint32_t id) const { return m_Nodes[id]; }
  uint32_t Roots() const { return m_nRoots; }
  uint32_t Size() const { return static_cast<uint32_t>(m_Nodes.size()); }
  Entry At(uint32_t id) const { return Entry(this, id); }

  // The child of folder `parent` called `name`: the long name exactly, else the short name exactly,
  // else either ignoring ASCII case; of several the first by byte order, then by image order.
  std::optional<uint32_t> FindChild(uint32_t parent, std::string_view name) const;

 private:
  struct Key {
    uint32_t node;
    bool isShort;
  };

  const std::string& Text(const Key& key) const;
  void AddKeys(uint32_t folder);
  void SortKeys(uint32_t folder);

  std::vector<CatalogNode> m_Nodes;
  std::vector<Key> m_Keys;
  std::vector<uint32_t> m_FirstKey;  // by node; one more at the end
  uint32_t m_nRoots;
};

}  // namespace capsule::host
