// What tests do with the entries of an open image.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/image.h"

namespace capsule::test {

// Visits every entry of the image, the roots too.
template <typename Visit>
void ForEachEntry(const host::Image& image, Visit visit) {
  std::vector<host::Entry> left;
  for (int n = 0; n < image.Partitions(); ++n) left.push_back(image.Root(n));
  while (!left.empty()) {
    const host::Entry entry = left.back();
    left.pop_back();
    for (const host::Entry& child : entry.Children()) left.push_back(child);
    visit(entry);
  }
}

// A file of a sound image.
inline std::string ReadAll(const host::Image& image, const host::Entry& entry) {
  std::vector<unsigned char> bytes(entry.Size());
  EXPECT_EQ(image.Read(entry, 0, bytes), bytes.size());
  return {bytes.begin(), bytes.end()};
}

// What goes wrong with `work`, or "".
template <typename Work>
std::string ErrorOf(Work work) {
  try {
    work();
  } catch (const host::Error& error) {
    return error.what();
  }
  return "";
}

}  // namespace capsule::test
