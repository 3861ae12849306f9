#include "capsule/host/tree/tree_builder.h"

#include <cstdint>

#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

// A long name has 63 pieces of 13 units of up to three bytes; a short one twelve characters.
constexpr size_t kMaxNameBytes = kMaxLongNamePieces * kPieceUnits * 3;
constexpr size_t kMaxShortNameBytes = 0xFF;
static_assert(kMaxNameBytes + kMaxShortNameBytes <= NameStore::kBlock);
static_assert(kMaxNameBytes <= 0xFFFF);

}  // namespace

TreeBuilder::TreeBuilder() : m_catalog(std::make_unique<Catalog>()) {}

void TreeBuilder::BeginPartition(uint32_t offset) {
  const uint32_t id = m_catalog->Size();
  CatalogNode root;
  root.parent = id;
  root.offset = offset;
  root.attributes = kDirectoryAttribute;
  root.isDirectory = true;
  root.partition = static_cast<uint8_t>(m_catalog->m_roots.size());
  root.name = m_catalog->m_names.Add("");
  m_catalog->m_nodes.push_back(root);
  m_catalog->m_roots.push_back(id);
  m_open.assign(1, {id, CatalogNode::kNone});
}

uint32_t TreeBuilder::Add(const Item& item) {
  const uint32_t id = m_catalog->Size();
  OpenFolder& folder = m_open.back();
  CatalogNode node = item.node;
  node.parent = folder.id;
  node.partition = m_catalog->m_nodes[folder.id].partition;
  node.hasShortName = item.shortName != item.name;
  const std::string_view name = item.name.substr(0, kMaxNameBytes);
  const std::string_view shortName = item.shortName.substr(0, kMaxShortNameBytes);
  node.nameLength = static_cast<uint16_t>(name.size());
  node.shortLength = static_cast<uint8_t>(node.hasShortName ? shortName.size() : 0);
  node.name = m_catalog->m_names.Add(name, node.hasShortName ? shortName : "");
  m_catalog->m_nodes.push_back(node);
  CatalogNode& parent = m_catalog->m_nodes[folder.id];
  ++parent.childCount;
  (folder.lastChild == CatalogNode::kNone ? parent.firstChild
                                          : m_catalog->m_nodes[folder.lastChild].nextSibling) = id;
  folder.lastChild = id;
  if (node.isDirectory && !item.opensNothing) m_open.push_back({id, CatalogNode::kNone});
  return id;
}

void TreeBuilder::LeaveTo(size_t depth) {
  if (depth < Depth()) m_open.resize(depth + 1);
}

}  // namespace capsule::host
