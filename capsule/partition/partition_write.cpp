// Whether a path was inserted before is looked up in sets, so that inserting costs no walk over the
// list. Hosts may change the list themselves: the list counts its changes, and the sets are built
// anew when that count is not the expected one.
#include <cstring>
#include <new>

#include "capsule/blocks/file_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/out_of_memory.h"

namespace capsule {

namespace {

constexpr auto kWrittenType = CapsuleDirectoryEntry::DirTypeFat32;

}  // namespace

int CapsulePartition::InitializeCompressionHistory() {
  const size_t size = LzsSizeOfCompressionHistory();
  if (m_pCompressionHistory == nullptr) {
    m_pCompressionHistory.reset(new (std::nothrow) unsigned char[size]());
    if (m_pCompressionHistory == nullptr) return -1;
  } else {
    std::memset(m_pCompressionHistory.get(), 0, size);
  }
  LzsInitCompressionHistory(m_pCompressionHistory.get());
  return 0;
}

void CapsulePartition::Append(std::unique_ptr<CapsuleFileBlock> block) {
  m_FileBlocks.Append(block.get());
  static_cast<void>(block.release());
}

void CapsulePartition::RememberInserted(CapsuleFileBlock& block) {
  m_InsertedPaths.insert(block.GetFilePath());
  m_InsertedShortNames.insert(block.GetDirectoryEntry().ShortName());
}

void CapsulePartition::RefreshInsertedNames() {
  const uint64_t changes = m_FileBlocks.Changes();
  if (changes == m_nKnownChanges) return;
  m_InsertedPaths.clear();
  m_InsertedShortNames.clear();
  for (int i = 0; i < m_FileBlocks.GetCount(); ++i) {
    auto* block = static_cast<CapsuleFileBlock*>(m_FileBlocks.GetAt(i));
    if (block == nullptr) return;
    RememberInserted(*block);
  }
  m_nKnownChanges = changes;
}

int CapsulePartition::WriteDirectories(int fd, const char* path, int offset, int* written) {
  if (path == nullptr || written == nullptr) return -1;
  if (m_pRootBlock != nullptr) return -1;  // m_FileBlocks owns nothing here
  return platform::OrOutOfMemory(-1, [&] { return WriteGroups(fd, path, offset, written); });
}

int CapsulePartition::WriteGroups(int fd, const char* path, int offset, int* written) {
  RefreshInsertedNames();
  if (m_InsertedPaths.contains(path)) return -1;

  auto owned = std::make_unique<CapsuleFileBlock>(nullptr, *this);
  CapsuleFileBlock& directory = *owned;
  int total = 0;
  if (directory.WriteDirEntry(kWrittenType, path, fd, offset, &total) != 0) return -1;
  const uint64_t changesBefore = m_FileBlocks.Changes();
  Append(std::move(owned));

  // The groups of "." and ".." go through the directory's own block; two empty blocks stand for
  // them in the list.
  CapsuleFileBlock* parent = &directory;
  for (const std::string_view self : kDotSuffixes) {
    auto block = std::make_unique<CapsuleFileBlock>(parent, *this);
    const CString below = CString(path).append(self);
    if (directory.WriteDirEntry(kWrittenType, below.c_str(), fd, offset + total, &total) != 0) {
      return -1;
    }
    parent = block.get();
    Append(std::move(block));
  }
  directory.SetFilePath(path);
  if (!Advance(written, total)) return -1;

  // Another change of the list meanwhile, or a null element in it, makes the next look-up walk it.
  constexpr uint64_t kOwnChanges = 3;
  if (m_nKnownChanges == changesBefore && m_FileBlocks.Changes() == changesBefore + kOwnChanges) {
    RememberInserted(directory);
    RememberInserted(*parent);
    m_nKnownChanges = m_FileBlocks.Changes();
  }
  return 0;
}

int CapsulePartition::WriteFile(int fd, const char* path, int offset, int* written, int compress) {
  if (path == nullptr || written == nullptr) return -1;
  return platform::OrOutOfMemory(-1, [&] {
    RefreshInsertedNames();
    if (m_InsertedShortNames.contains(path)) return -1;

    CapsuleFileBlock file(nullptr, *this);
    int total = 0;
    if (file.WriteDirEntry(kWrittenType, path, fd, offset, &total) != 0) return -1;
    const bool hasData = file.GetDirectoryEntry().EntryFor(kWrittenType).FileSize != 0;
    if (hasData && file.StreamFile(path, fd, offset + total, &total, compress) != 0) return -1;
    return Advance(written, total) ? 0 : -1;
  });
}

}  // namespace capsule
