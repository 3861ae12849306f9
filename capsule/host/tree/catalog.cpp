#include "capsule/host/tree/catalog.h"

#include <algorithm>
#include <compare>

#include "capsule/host/error.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"

namespace capsule::host {
namespace {

// By bytes, upper-cased first when `folded`.
std::strong_ordering Compare(std::string_view a, std::string_view b, bool folded) {
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    if (a[i] == b[i]) continue;
    const auto left = static_cast<unsigned char>(folded ? platform::UpperAscii(a[i]) : a[i]);
    const auto right = static_cast<unsigned char>(folded ? platform::UpperAscii(b[i]) : b[i]);
    if (left != right) return left <=> right;
  }
  return a.size() <=> b.size();
}

}  // namespace

Catalog::Catalog(std::vector<CatalogNode> nodes, uint32_t roots)
    : m_Nodes(std::move(nodes)), m_nRoots(roots) {
  m_FirstKey.reserve(m_Nodes.size() + 1);
  m_Keys.reserve(2 * m_Nodes.size());
  for (uint32_t id = 0; id < Size(); ++id) {
    m_FirstKey.push_back(static_cast<uint32_t>(m_Keys.size()));
    AddKeys(id);
  }
  m_FirstKey.push_back(static_cast<uint32_t>(m_Keys.size()));
  for (uint32_t id = 0; id < Size(); ++id) SortKeys(id);
}

const std::string& Catalog::Text(const Key& key) const {
  const CatalogNode& node = m_Nodes[key.node];
  return key.isShort ? node.shortName : node.name;
}

void Catalog::AddKeys(uint32_t folder) {
  const CatalogNode& node = m_Nodes[folder];
  for (uint32_t id = node.firstChild; id < node.firstChild + node.childCount; ++id) {
    m_Keys.push_back({id, false});
    if (m_Nodes[id].shortName != m_Nodes[id].name) m_Keys.push_back({id, true});
  }
}

void Catalog::SortKeys(uint32_t folder) {
  const auto first = m_Keys.begin() + m_FirstKey[folder];
  const auto last = m_Keys.begin() + m_FirstKey[folder + 1];
  std::sort(first, last, [this](const Key& a, const Key& b) {
    const std::string& left = Text(a);
    const std::string& right = Text(b);
    if (const auto order = Compare(left, right, true); order != 0) return order < 0;
    if (const auto order = Compare(left, right, false); order != 0) return order < 0;
    if (a.isShort != b.isShort) return b.isShort;
    return a.node < b.node;
  });
  for (auto key = first; key != last && key + 1 != last; ++key) {
    const auto next = key + 1;
    if (!key->isShort && !next->isShort && Text(*key) == Text(*next)) {
      m_Nodes[next->node].isDuplicate = true;
    }
  }
}

std::optional<uint32_t> Catalog::FindChild(uint32_t parent, std::string_view name) const {
  const auto first = m_Keys.begin() + m_FirstKey[parent];
  const auto last = m_Keys.begin() + m_FirstKey[parent + 1];
  const auto folded = [this](const Key& key, std::string_view wanted) {
    return Compare(Text(key), wanted, true) < 0;
  };
  const auto exact = [this](const Key& key, std::string_view wanted) {
    const auto order = Compare(Text(key), wanted, true);
    return order != 0 ? order < 0 : Compare(Text(key), wanted, false) < 0;
  };
  const auto same = std::lower_bound(first, last, name, exact);
  if (same != last && Text(*same) == name) return same->node;
  const auto alike = std::lower_bound(first, last, name, folded);
  if (alike != last && platform::EqualIgnoringCase(Text(*alike), name)) return alike->node;
  return std::nullopt;
}

namespace {

// What an entry looks into; an entry of no image has none.
const Catalog& Of(const Catalog* catalog) {
  if (catalog == nullptr) throw Error("entry", "belongs to no image");
  return *catalog;
}

}  // namespace

const std::string& Entry::Name() const { return Of(m_pCatalog).Node(m_nId).name; }
const std::string& Entry::ShortName() const { return Of(m_pCatalog).Node(m_nId).shortName; }
int Entry::Partition() const { return Of(m_pCatalog).Node(m_nId).partition; }
bool Entry::IsRoot() const { return m_nId < Of(m_pCatalog).Roots(); }
bool Entry::IsDirectory() const { return Of(m_pCatalog).Node(m_nId).isDirectory; }
bool Entry::IsReadOnly() const { return (Attributes() & platform::kAttributeReadOnly) != 0; }
bool Entry::IsHidden() const { return (Attributes() & platform::kAttributeHidden) != 0; }
uint8_t Entry::Attributes() const { return Of(m_pCatalog).Node(m_nId).attributes; }
uint32_t Entry::Size() const { return Of(m_pCatalog).Node(m_nId).size; }
uint32_t Entry::Offset() const { return Of(m_pCatalog).Node(m_nId).offset; }
bool Entry::IsDuplicate() const { return Of(m_pCatalog).Node(m_nId).isDuplicate; }
Entry Entry::Parent() const { return {m_pCatalog, Of(m_pCatalog).Node(m_nId).parent}; }

std::optional<int64_t> Entry::ModifiedTime() const {
  const platform::DosDateTime& modified = Of(m_pCatalog).Node(m_nId).modified;
  if (modified.date == 0) return std::nullopt;
  return platform::ToUnixSeconds(modified);
}

EntryRange Entry::Children() const {
  const CatalogNode& node = Of(m_pCatalog).Node(m_nId);
  return {m_pCatalog, node.firstChild, node.childCount};
}

std::string Entry::Path() const {
  std::vector<const std::string*> names;
  size_t length = 2;
  for (Entry entry = *this; !entry.IsRoot(); entry = entry.Parent()) {
    names.push_back(&entry.Name());
    length += names.back()->size() + 1;
  }
  std::string path = std::to_string(Partition()) + ":";
  path.reserve(length);
  if (names.empty()) path += '/';
  for (auto name = names.rbegin(); name != names.rend(); ++name) path.append("/").append(**name);
  return path;
}

}  // namespace capsule::host
