// TreeBuilder makes a Catalog of items that come in file order, whatever found them.
//
//   TreeBuilder tree;
//   tree.BeginPartition(7560);
//   tree.Add({.name = "folder", .shortName = "FOLDER", .node = folder});
//   tree.Add({.name = "notes.txt", .shortName = "NOTES.TXT", .node = file});
//   tree.Leave();
//   std::unique_ptr<Catalog> catalog = tree.Build();
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "capsule/host/tree/catalog.h"

namespace capsule::host {

class TreeBuilder {
 public:
  struct Item {
    std::string_view name;
    std::string_view shortName;
    CatalogNode node;  // its links, partition and names are set by the builder
    bool opensNothing = false;
  };

  TreeBuilder();

  // The root of the next partition, whose section begins at `offset`. Folders that were open are
  // closed.
  void BeginPartition(uint32_t offset);

  // Adds an item to the innermost open folder of the partition that came last; a folder is open
  // then, unless it opens nothing. Its number in the catalog.
  uint32_t Add(const Item& item);

  // Closes the innermost folder; at the top level it does nothing.
  void Leave() { LeaveTo(Depth() == 0 ? 0 : Depth() - 1); }
  void LeaveTo(size_t depth);

  // Open folders, the root not counted.
  size_t Depth() const { return m_open.empty() ? 0 : m_open.size() - 1; }

  bool HasPartition() const { return !m_open.empty(); }
  const Catalog& SoFar() const { return *m_catalog; }

  // The builder is used up.
  std::unique_ptr<Catalog> Build() { return std::move(m_catalog); }

 private:
  struct OpenFolder {
    uint32_t id;
    uint32_t lastChild;
  };

  std::unique_ptr<Catalog> m_catalog;
  std::vector<OpenFolder> m_open;
};

}  // namespace capsule::host
