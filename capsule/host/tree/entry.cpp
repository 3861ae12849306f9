#include "capsule/host/entry.h"

#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/tree/catalog.h"
#include "capsule/platform/dos_time.h"

namespace capsule::host {
namespace {

// What an entry looks into; an entry of no image has none.
const Catalog& Of(const Catalog* catalog) {
  if (catalog == nullptr) throw Error(ErrorKind::Misuse, "entry", "belongs to no image");
  return *catalog;
}

}  // namespace

std::string_view Entry::Name() const { return Of(m_pCatalog).Name(m_nId); }
std::string_view Entry::ShortName() const { return Of(m_pCatalog).ShortName(m_nId); }
int Entry::Partition() const { return Of(m_pCatalog).Node(m_nId).partition; }
bool Entry::IsRoot() const { return Of(m_pCatalog).IsRoot(m_nId); }
bool Entry::IsDirectory() const { return Of(m_pCatalog).Node(m_nId).isDirectory; }
bool Entry::IsReadOnly() const { return (Attributes() & platform::kAttributeReadOnly) != 0; }
bool Entry::IsHidden() const { return (Attributes() & platform::kAttributeHidden) != 0; }
uint8_t Entry::Attributes() const { return Of(m_pCatalog).Node(m_nId).attributes; }
uint32_t Entry::Size() const { return Of(m_pCatalog).Node(m_nId).size; }
uint32_t Entry::Offset() const { return Of(m_pCatalog).Node(m_nId).offset; }
bool Entry::IsDuplicate() const { return Of(m_pCatalog).IsDuplicate(m_nId); }
Entry Entry::Parent() const { return {m_pCatalog, Of(m_pCatalog).Node(m_nId).parent}; }

std::optional<int64_t> Entry::ModifiedTime() const {
  const platform::DosDateTime& modified = Of(m_pCatalog).Node(m_nId).modified;
  if (modified.date == 0) return std::nullopt;
  return platform::ToUnixSeconds(modified);
}

uint32_t EntryRange::After(const Catalog& catalog, uint32_t id) {
  return catalog.Node(id).nextSibling;
}

EntryRange Entry::Children() const {
  const CatalogNode& node = Of(m_pCatalog).Node(m_nId);
  return {m_pCatalog, node.firstChild, node.childCount};
}

std::string Entry::Path() const {
  std::vector<std::string_view> names;
  size_t length = 2;
  for (Entry entry = *this; !entry.IsRoot(); entry = entry.Parent()) {
    names.push_back(entry.Name());
    length += names.back().size() + 1;
  }
  std::string path = std::to_string(Partition()) + ":";
  path.reserve(length);
  if (names.empty()) path += '/';
  for (auto name = names.rbegin(); name != names.rend(); ++name) path.append("/").append(*name);
  return path;
}

}  // namespace capsule::host
