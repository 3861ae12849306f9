// Both trees are brought into the order of their records' offsets and then compared side by side.
// Whatever lies in a made-up folder is left out, since the index cannot know that folder.
#include "capsule/host/tree/tree_comparison.h"

#include <algorithm>
#include <vector>

#include "capsule/host/file/reason.h"

namespace capsule::host {
namespace {

// An entry as it is compared. Parents are told by the places of their records.
struct Place {
  uint32_t offset;
  uint32_t parent;
  uint32_t id;
};

std::vector<Place> PlacesOf(const Catalog& catalog) {
  std::vector<Place> places;
  std::vector<bool> isMadeUp(catalog.Size());
  for (uint32_t id = 0; id < catalog.Size(); ++id) {
    if (catalog.IsRoot(id)) continue;
    const CatalogNode& node = catalog.Node(id);
    const bool inRoot = catalog.IsRoot(node.parent);
    isMadeUp[id] = node.isPlaceholder || (!inRoot && isMadeUp[node.parent]);
    if (isMadeUp[id]) continue;
    places.push_back({node.offset, inRoot ? node.partition : catalog.Node(node.parent).offset, id});
  }
  std::sort(places.begin(), places.end(),
            [](const Place& a, const Place& b) { return a.offset < b.offset; });
  return places;
}

// Whether entry `a` of the indexed tree is `b` of the scanned one. The index may leave a file more
// room than its records take, not less.
bool Agree(const Catalog& indexed, const Place& a, const Catalog& scanned, const Place& b) {
  const CatalogNode& left = indexed.Node(a.id);
  const CatalogNode& right = scanned.Node(b.id);
  const bool hasRoom = left.isDirectory ||
                       (left.dataOffset == right.dataOffset && left.dataLimit >= right.dataLimit);
  return hasRoom && a.parent == b.parent && left.partition == right.partition &&
         indexed.Name(a.id) == scanned.Name(b.id) && left.size == right.size &&
         left.isDirectory == right.isDirectory;
}

}  // namespace

std::string CompareTrees(const Catalog& indexed, const Catalog& scanned) {
  const std::vector<Place> left = PlacesOf(indexed);
  const std::vector<Place> right = PlacesOf(scanned);
  for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
    if (i == right.size() || (i < left.size() && left[i].offset < right[i].offset)) {
      return "the index names " + Hex(left[i].offset) + ", where the sections have no entry";
    }
    if (i == left.size() || right[i].offset < left[i].offset) {
      return "the index does not name the entry at " + Hex(right[i].offset);
    }
    if (!Agree(indexed, left[i], scanned, right[i])) {
      return "the index puts the entry at " + Hex(left[i].offset) + " where its records do not";
    }
  }
  return {};
}

}  // namespace capsule::host
