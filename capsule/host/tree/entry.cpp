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

std::string_view Entry::Name() const { return Of(m_catalog).Name(m_id); }
std::string_view Entry::ShortName() const { return Of(m_catalog).ShortName(m_id); }
int Entry::Partition() const { return Of(m_catalog).Node(m_id).partition; }
bool Entry::IsRoot() const { return Of(m_catalog).IsRoot(m_id); }
bool Entry::IsDirectory() const { return Of(m_catalog).Node(m_id).isDirectory; }
bool Entry::IsReadOnly() const { return (Attributes() & platform::kAttributeReadOnly) != 0; }
bool Entry::IsHidden() const { return (Attributes() & platform::kAttributeHidden) != 0; }
uint8_t Entry::Attributes() const { return Of(m_catalog).Node(m_id).attributes; }
uint32_t Entry::Size() const { return Of(m_catalog).Node(m_id).size; }
uint32_t Entry::Offset() const { return Of(m_catalog).Node(m_id).offset; }
bool Entry::IsDuplicate() const { return Of(m_catalog).IsDuplicate(m_id); }
Entry Entry::Parent() const { return {m_catalog, Of(m_catalog).Node(m_id).parent}; }

std::optional<int64_t> Entry::ModifiedTime() const {
  const platform::DosDateTime& modified = Of(m_catalog).Node(m_id).modified;
  if (modified.date == 0) return std::nullopt;
  return platform::ToUnixSeconds(modified);
}

uint32_t EntryRange::After(const Catalog& catalog, uint32_t id) {
  return catalog.Node(id).nextSibling;
}

EntryRange Entry::Children() const {
  const CatalogNode& node = Of(m_catalog).Node(m_id);
  return {m_catalog, node.firstChild, node.childCount};
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
