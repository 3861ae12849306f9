// The tree of an NTFS section. Entries come in the order of a walk that goes down first; how many
// children a directory has tells where the walk goes up again.
//
//   1. m_pRootBlock owns all other blocks; m_FileBlocks refers to the children of the root.
//   2. No byte of the image is taken by two entries: what all entries take together is never more
//      than the image holds.
#include <array>
#include <memory>

#include "capsule/blocks/file_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/image_index.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/partition.h"
#include "capsule/platform/file.h"

namespace capsule {
namespace {

constexpr int kNoOffset = -1;

bool ReadRecordType(int fd, int offset, uint32_t* type) {
  std::array<unsigned char, kNtfsHeaderSize> bytes{};
  CpsReaderLock reader;
  const int got = reader.ReadAt(fd, bytes.data(), kNtfsHeaderSize, offset);
  *type = DecodeNtfsHeader(bytes).RecordType;
  return got == static_cast<int>(kNtfsHeaderSize);
}

// The directory that takes the next entry: the nearest from `directory` up that has not all its
// children yet, or null.
CapsuleFileBlock* NextToFill(CapsuleFileBlock* directory) {
  while (directory != nullptr) {
    CapsuleDirectoryEntry& entry = directory->GetDirectoryEntry();
    if (entry.GetCurEntry() != entry.GetNumEntries()) {
      entry.IncCurEntry();
      return directory;
    }
    directory = directory->ParentFileBlock();
  }
  return nullptr;
}

}  // namespace

int CapsulePartition::ReadNtfsSection(int fd) {
  ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
  if (index == nullptr) return -1;
  const int nextSection = index->PeekNextPartitionOffset();
  const auto inSection = [&](int at) {
    return at != kNoOffset && (nextSection == kNoOffset || at < nextSection);
  };
  if (nextSection != kNoOffset && index->PeekNextFileOffset() >= nextSection) return 0;
  const int position = index->GetNextFileOffset();
  const uint16_t size = LzsSizeOfDecompressionHistory();
  m_pDecompressionHistory = std::make_unique<unsigned char[]>(size);
  LzsInitDecompressionHistory(m_pDecompressionHistory.get());

  const int result = ReadNtfsEntries(fd, index, position, inSection);
  // Readers of the next section begin with the next offset of the index, so none of this section's
  // may be left over.
  while (inSection(index->PeekNextFileOffset())) index->GetNextFileOffset();
  return result;
}

int CapsulePartition::ReadNtfsEntries(int fd, ImageIndex* index, int position,
                                      const std::function<bool(int)>& inSection) {
  const int64_t imageSize = platform::FileLength(fd);
  int64_t taken = 0;
  CapsuleFileBlock* directory = nullptr;
  do {
    uint32_t type = 0;
    if (!ReadRecordType(fd, position, &type)) return -1;
    if (type == kNtfsEnd) return 0;
    if (m_pRootBlock) directory = NextToFill(directory);
    if (m_pRootBlock && directory == nullptr) return 0;
    int end = position;
    auto block = std::make_unique<CapsuleFileBlock>(directory, *this);
    auto* history = static_cast<char*>(static_cast<void*>(m_pDecompressionHistory.get()));
    if (block->Read(m_PartitionType, fd, position, &end, *m_pCapsuleFile, history) != 0) return -1;
    taken += int64_t{end} - position;
    if (taken > imageSize) return -1;
    directory = PlaceNtfsBlock(std::move(block), directory);
    position = index->GetNextFileOffset();
  } while (inSection(position));
  return 0;
}

CapsuleFileBlock* CapsulePartition::PlaceNtfsBlock(std::unique_ptr<CapsuleFileBlock> block,
                                                   CapsuleFileBlock* directory) {
  if (!m_pRootBlock) {
    m_pRootBlock = std::move(block);
    return m_pRootBlock.get();
  }
  directory->FileList().Append(block.get());
  CapsuleFileBlock* placed = block.release();
  if (directory == m_pRootBlock.get()) m_FileBlocks.Append(placed);
  return placed->GetDirectoryEntry().NTFSIsDirectory() != 0 ? placed : directory;
}

}  // namespace capsule
