// Visits the files of an image.
#pragma once

#include <functional>
#include <vector>

#include "capsule/host/image.h"

namespace capsule::fuzz {

inline void VisitFiles(const host::Image& image,
                       const std::function<void(const host::Entry&)>& visit) {
  std::vector<host::Entry> left;
  for (int n = 0; n < image.Partitions(); ++n) left.push_back(image.Root(n));
  while (!left.empty()) {
    const host::Entry entry = left.back();
    left.pop_back();
    if (!entry.IsDirectory()) visit(entry);
    for (const host::Entry& child : entry.Children()) left.push_back(child);
  }
}

}  // namespace capsule::fuzz
