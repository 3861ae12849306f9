#include "capsule/partition/partition.h"

#include <algorithm>
#include <string_view>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"

namespace capsule {

namespace {

constexpr uint8_t kInsertedFilesSystemId = 0x0B;

void DestroyBlocks(CpsList& blocks) {
  while (blocks.GetCount() > 0) {
    const std::unique_ptr<CapsuleFileBlock> block(static_cast<CapsuleFileBlock*>(blocks.GetAt(0)));
    blocks.RemoveAt(0);
  }
}

}  // namespace

CapsulePartition::CapsulePartition(CapsuleFile& file) : m_pCapsuleFile(&file) {}

CapsulePartition::~CapsulePartition() {
  if (m_pRootBlock == nullptr) DestroyBlocks(m_FileBlocks);
  DestroyBlocks(m_Directories);
}

int CapsulePartition::WritePartitionHeader(int fd, int offset) {
  m_nStartOffset = offset;
  const auto header = EncodePartitionHeader();
  std::copy_n(header.begin(), kSectorAreaSize, m_SectorArea);
  m_nOffsetInPartition = kSectorAreaSize;
  if (!FitsImage(offset, kPartitionHeaderSize) ||
      !platform::WriteAt(fd, header.data(), header.size(), offset)) {
    return -1;
  }
  m_nOffsetInPartition += static_cast<int32_t>(kPartitionHeaderSize);
  return 0;
}

int CapsulePartition::WritePartitionTrailer(int fd, int offset) {
  const auto trailer = EncodePartitionTrailer();
  const bool written =
      FitsImage(offset, 0) && platform::WriteAt(fd, trailer.data(), trailer.size(), offset);
  return written ? 0 : -1;
}

int CapsulePartition::InitializePartHeaderInfo() {
  m_PartInfo = _Partition{};
  m_PartInfo.SystemId = kInsertedFilesSystemId;
  return 0;
}

_Partition* CapsulePartition::GetHeaderPartitionInfo() { return &m_PartInfo; }

int CapsulePartition::IsFat() { return IsPartitionType(m_SectorArea, PartitionFat); }

int CapsulePartition::IsUnknown() { return IsPartitionType(m_SectorArea, PartitionUnknown); }

int CapsulePartition::IsPartitionType(const unsigned char* area, PartitionType t) {
  if (area == nullptr) return 0;
  const unsigned char mark[] = {0xAB, 0xCD, static_cast<unsigned char>(t)};
  return std::equal(std::begin(mark), std::end(mark), area) ? 1 : 0;
}

int CapsulePartition::GetStartOffset() const { return m_nStartOffset; }

int CapsulePartition::GetOffsetInPartition() const { return m_nOffsetInPartition; }

int CapsulePartition::HierarchyLevelOf(const char* path) {
  const std::string_view text(path == nullptr ? "" : path);
  return static_cast<int>(std::count(text.begin(), text.end(), '\\') + 1);
}

void CapsulePartition::SetHierarchyLevel(const char* path) {
  m_nHierarchyLevel = HierarchyLevelOf(path);
}

int CapsulePartition::GetHierarchyLevel() { return m_nHierarchyLevel; }

CpsList& CapsulePartition::GetFileBlocks() { return m_FileBlocks; }

CapsuleFile& CapsulePartition::GetCapsuleFile() { return *m_pCapsuleFile; }

CapsulePartition::DirectoryType CapsulePartition::GetPartitionType() const {
  return m_PartitionType;
}

char* CapsulePartition::GetCompressionHistory() {
  return static_cast<char*>(static_cast<void*>(m_pCompressionHistory.get()));
}

}  // namespace capsule
