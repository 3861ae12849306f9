// CapsulePartition is one partition section of an image: it writes the section's header, items and
// trailer, or rebuilds the section's tree of file blocks from the index.
//
//   auto* partition = static_cast<CapsulePartition*>(file.GetPartitions().GetAt(0));
//   DirectorySupport root("0:\\");
//   for (_DirectoryEntry* e = partition->GetDirectoryEntry(root); e; e = e->Next) Show(*e);
//
// It owns its file blocks and its history areas. Operations give 0 for success, -1 for failure;
// null where something is needed is a failure. `fd` is a descriptor of the image, offsets are those
// in it. One thread drives a partition; the lists have their own locks.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "capsule/export.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/partition/partition_record.h"
#include "capsule/runtime/cps_list.h"

namespace capsule {

class CapsuleFile;
class CapsuleFileBlock;
class DirectorySupport;
class ImageIndex;

class CAPSULE_API CapsulePartition {
 public:
  using DirectoryType = CapsuleDirectoryEntry::DirectoryType;

  // Third byte of a section.
  enum PartitionType { PartitionUnknown = 1, PartitionFat = 2 };

  // `file` must outlive the partition.
  explicit CapsulePartition(CapsuleFile& file);
  virtual ~CapsulePartition();
  CapsulePartition(const CapsulePartition&) = delete;
  CapsulePartition& operator=(const CapsulePartition&) = delete;

  // --- Section header and trailer, queries (partition.cpp) ---

  // 2056 bytes at `offset`, where the section begins from now on.
  int WritePartitionHeader(int fd, int offset);

  // 1544 bytes at `offset`.
  int WritePartitionTrailer(int fd, int offset);

  // The partition's record, which goes into the image header: made zero but for system id 0x0B, and
  // handed out.
  int InitializePartHeaderInfo();
  _Partition* GetHeaderPartitionInfo();

  // Whether `area`, or the section's own first 512 bytes, begin as those of a section of type `t`,
  // PartitionFat or PartitionUnknown: 1 or 0.
  int IsFat();
  int IsUnknown();
  int IsPartitionType(const unsigned char* area, PartitionType t);

  // Where the section begins in the image.
  int GetStartOffset() const;

  // 2568 once the section header is written.
  int GetOffsetInPartition() const;

  // Depth of the last directory inserted: the number of `\` in `path` plus 1.
  static int HierarchyLevelOf(const char* path);
  void SetHierarchyLevel(const char* path);
  int GetHierarchyLevel();

  // CapsuleFileBlock pointers: all that were inserted, or the top level of the tree that was read.
  CpsList& GetFileBlocks();
  CapsuleFile& GetCapsuleFile();

  // The type that Read was given.
  DirectoryType GetPartitionType() const;

  // The area that InitializeCompressionHistory prepares, or null.
  char* GetCompressionHistory();

  // --- Writing items (partition_write.cpp) ---

  // Prepares the compression history afresh; comes before each item.
  int InitializeCompressionHistory();

  // What the "." and ".." of a directory are called behind its path, in their order.
  static constexpr std::array<std::string_view, 2> kDotSuffixes = {"\\.", "\\.."};

  // A directory's three record groups at `offset`: its own, "." and "..". Adds their bytes to
  // `*written`. -1 and nothing written when `path` was inserted before, or into the tree of an NTFS
  // partition that was read.
  int WriteDirectories(int fd, const char* path, int offset, int* written);

  // A file's record group and data block records at `offset`; adds their bytes to `*written`.
  // `compress`: level 0 (stored), 1-3 fast, 4-6 medium, other maximum.
  int WriteFile(int fd, const char* path, int offset, int* written, int compress);

  // --- Reading (partition_read.cpp) ---

  // Rebuilds the tree of the section at `offset` from the current index, once: -1 when there is a
  // tree already. `pos` is not used.
  int Read(DirectoryType t, int fd, int offset, int* pos);

  // Gives the file blocks the history that decoding starts with; comes behind Read.
  void SetUpHistoryBuffer();

  // The same; false, and no block has its history, when there is no memory.
  bool SetUpHistories();

  // The `size` bytes at `history` as they are now; null without any. Equal ones in a row share
  // their memory, so that a hundred thousand files hold one copy.
  std::shared_ptr<const std::vector<unsigned char>> HistorySnapshot(const char* history, int size);

  // Skips a run of data block records at `offset`; `*pos` ends behind them, also on failure.
  int ReadDataBlocks(int fd, int offset, int* pos);

  // The chained records of the directory that `path` names; null when not found or empty.
  _DirectoryEntry* GetDirectoryEntry(DirectorySupport& path);

  // Chains the records of `blocks` in list order; the first, or null.
  _DirectoryEntry* SetupDirectoryEntry(CpsList& blocks);

 private:
  // Appends to m_FileBlocks, which owns the block from then on.
  void Append(std::unique_ptr<CapsuleFileBlock> block);

  // Brings the sets of inserted names up to date when a host has changed the list.
  void RefreshInsertedNames();
  void RememberInserted(CapsuleFileBlock& block);

  int WriteGroups(int fd, const char* path, int offset, int* written);
  int ReadFatSection(int fd);
  int ReadNtfsSection(int fd);
  int ReadNtfsEntries(int fd, ImageIndex* index, int position,
                      const std::function<bool(int)>& inSection);
  CapsuleFileBlock* PlaceNtfsBlock(std::unique_ptr<CapsuleFileBlock> block,
                                   CapsuleFileBlock* directory);
  CapsuleFileBlock* PlaceBlock(std::unique_ptr<CapsuleFileBlock> block,
                               CapsuleFileBlock* directory);

  unsigned char m_SectorArea[512] = {};
  CpsList m_FileBlocks;
  CpsList m_Directories;
  int32_t m_nStartOffset = 0;
  int32_t m_nOffsetInPartition = 0;
  int32_t m_nHierarchyLevel = 0;
  _Partition m_PartInfo{};
  CapsuleFile* m_pCapsuleFile;
  std::unique_ptr<unsigned char[]> m_pDecompressionHistory;
  std::unique_ptr<unsigned char[]> m_pCompressionHistory;
  std::shared_ptr<const std::vector<unsigned char>> m_pHistorySnapshot;
  DirectoryType m_PartitionType = CapsuleDirectoryEntry::DirTypeFat32;

  // NTFS sections: the first block read, which owns all others; m_FileBlocks refers to its
  // children.
  std::unique_ptr<CapsuleFileBlock> m_pRootBlock;

  // Paths and short names of m_FileBlocks up to the first null element, so that duplicates are
  // found without a walk; true of the list as it was after m_nKnownChanges changes.
  std::unordered_set<std::string> m_InsertedPaths;
  std::unordered_set<std::string> m_InsertedShortNames;
  uint64_t m_nKnownChanges = 0;
};

}  // namespace capsule
