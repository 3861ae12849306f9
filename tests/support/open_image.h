// Opens images as a host does, for tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/partition/partition.h"

namespace capsule::test {

// An image opened for reading; closed at the end of the scope.
class OpenImage {
 public:
  explicit OpenImage(const std::string& path) : m_path(path), m_file(m_path.c_str()) {}
  ~OpenImage() { m_file.CloseImageFileHandle(); }
  OpenImage& operator=(OpenImage&&) = delete;

  CapsuleFile& File() { return m_file; }
  int Descriptor() { return m_file.GetImageFileHandle(); }

  // ReadImage; -2 for the exception.
  int Read(int headerOnly = 0) {
    try {
      return m_file.ReadImage(headerOnly);
    } catch (int) {
      return -2;
    }
  }

  CapsulePartition* Partition(int i) {
    return static_cast<CapsulePartition*>(m_file.GetPartitions().GetAt(i));
  }

 private:
  std::string m_path;
  CapsuleFile m_file;
};

inline CapsuleFileBlock* BlockAt(CpsList& list, int i) {
  return static_cast<CapsuleFileBlock*>(list.GetAt(i));
}

// Visits every block of a tree, parents first.
inline void ForEachBlock(CpsList& list, const std::function<void(CapsuleFileBlock&)>& visit) {
  for (int i = 0; CapsuleFileBlock* block = BlockAt(list, i); ++i) {
    visit(*block);
    ForEachBlock(block->FileList(), visit);
  }
}

// One range of a file; "failed" when it cannot be had.
inline std::string Extract(CapsuleFile& file, CapsuleFileBlock& block, int start, int length) {
  const int asked = length;
  if (block.DecompressFile(&file, start, &length) != 0 || length < 0) return "failed";
  EXPECT_LE(length, asked);
  if (length == 0) return {};
  return {static_cast<const char*>(block.GetPtrToDecompressedFile()), static_cast<size_t>(length)};
}

inline std::string ExtractAll(CapsuleFile& file, CapsuleFileBlock& block) {
  const uint32_t size = block.GetDirectoryEntry().FileSize();
  constexpr uint32_t kMost = 0x7FFFFFFF;
  return size == 0 ? std::string()
                   : Extract(file, block, 0, static_cast<int>(std::min(size, kMost)));
}

}  // namespace capsule::test
