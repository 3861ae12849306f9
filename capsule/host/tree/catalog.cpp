// The names of a folder are sorted on the first look-up in it, outside of the lock, so that threads
// wait for each other only to find or keep a sorted folder.
#include "capsule/host/tree/catalog.h"

#include <algorithm>
#include <compare>
#include <mutex>

#include "capsule/host/file/reason.h"
#include "capsule/host/sections/section_scanner.h"
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

std::string_view Catalog::Name(uint32_t id) const {
  const CatalogNode& node = m_nodes[id];
  return m_names.Text(node.name, node.nameLength);
}

std::string_view Catalog::ShortName(uint32_t id) const {
  const CatalogNode& node = m_nodes[id];
  if (!node.hasShortName) return Name(id);
  return m_names.Text(node.name + node.nameLength, node.shortLength);
}

// Two threads may sort the same folder; the first to be done keeps its work.
const Catalog::Directory& Catalog::DirectoryOf(uint32_t folder) const {
  {
    const std::shared_lock lock(m_lock);
    const auto known = m_directories.find(folder);
    if (known != m_directories.end()) return known->second;
  }
  Directory directory = SortNames(folder);
  const std::unique_lock lock(m_lock);
  return m_directories.try_emplace(folder, std::move(directory)).first->second;
}

Catalog::Directory Catalog::SortNames(uint32_t folder) const {
  Directory directory;
  std::vector<Key>& keys = directory.keys;
  keys.reserve(2 * size_t{m_nodes[folder].childCount});
  for (uint32_t id = m_nodes[folder].firstChild; id != CatalogNode::kNone;
       id = m_nodes[id].nextSibling) {
    keys.push_back({id, false});
    if (m_nodes[id].hasShortName) keys.push_back({id, true});
  }
  std::sort(keys.begin(), keys.end(), [this](const Key& a, const Key& b) {
    const std::string_view left = Text(a);
    const std::string_view right = Text(b);
    if (const auto order = Compare(left, right, true); std::is_neq(order)) return std::is_lt(order);
    if (const auto order = Compare(left, right, false); std::is_neq(order))
      return std::is_lt(order);
    if (a.isShort != b.isShort) return b.isShort;
    return a.node < b.node;
  });
  for (size_t i = 1; i < keys.size(); ++i) {
    if (!keys[i - 1].isShort && !keys[i].isShort && Text(keys[i - 1]) == Text(keys[i])) {
      directory.duplicates.push_back(keys[i].node);
    }
  }
  std::sort(directory.duplicates.begin(), directory.duplicates.end());
  return directory;
}

bool Catalog::IsDuplicate(uint32_t id) const {
  if (IsRoot(id)) return false;
  const auto& duplicates = DirectoryOf(m_nodes[id].parent).duplicates;
  return std::binary_search(duplicates.begin(), duplicates.end(), id);
}

std::vector<std::pair<uint32_t, uint32_t>> Catalog::Places() const {
  std::vector<std::pair<uint32_t, uint32_t>> places;
  places.reserve(Size());
  for (uint32_t id = 0; id < Size(); ++id) places.emplace_back(m_nodes[id].offset, id);
  std::sort(places.begin(), places.end());
  return places;
}

std::string Catalog::NameForProblem(uint32_t id) const {
  size_t length = 0;
  for (uint32_t at = id; !IsRoot(at); at = m_nodes[at].parent) {
    length += 1 + m_nodes[at].nameLength;
    if (length > kMaxScannedPath) return "item at " + Hex(m_nodes[id].offset);
  }
  return At(id).Path();
}

std::optional<uint32_t> Catalog::FindChild(uint32_t parent, std::string_view name) const {
  const std::vector<Key>& keys = DirectoryOf(parent).keys;
  const auto folded = [this](const Key& key, std::string_view wanted) {
    return std::is_lt(Compare(Text(key), wanted, true));
  };
  const auto exact = [this](const Key& key, std::string_view wanted) {
    const auto order = Compare(Text(key), wanted, true);
    return std::is_lt(std::is_neq(order) ? order : Compare(Text(key), wanted, false));
  };
  const auto same = std::lower_bound(keys.begin(), keys.end(), name, exact);
  if (same != keys.end() && Text(*same) == name) return same->node;
  const auto alike = std::lower_bound(keys.begin(), keys.end(), name, folded);
  if (alike != keys.end() && platform::EqualIgnoringCase(Text(*alike), name)) return alike->node;
  return std::nullopt;
}

}  // namespace capsule::host
