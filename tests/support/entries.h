// What tests do with the entries of an open image.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/image.h"

namespace capsule::test {

// Visits every entry of the image, the roots too, those of a folder in their order.
template <typename Visit>
void ForEachEntry(const host::Image& image, Visit visit) {
  std::vector<host::Entry> left;
  const auto meet = [&](const host::Entry& entry) {
    visit(entry);
    left.push_back(entry);
  };
  for (int n = 0; n < image.Partitions(); ++n) meet(image.Root(n));
  while (!left.empty()) {
    const host::Entry folder = left.back();
    left.pop_back();
    for (const host::Entry& child : folder.Children()) meet(child);
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
