// The header is written first with what is known then. The partition count and the partition
// records are put into it when the image is closed, since only then all partitions are known.
#include "capsule/container/capsule_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"
#include "capsule/platform/out_of_memory.h"

namespace capsule {

namespace {

constexpr int kMaxCompressionLevel = 9;

void DestroyPartitions(CpsList& partitions) {
  while (partitions.GetCount() > 0) {
    const std::unique_ptr<CapsulePartition> first(
        static_cast<CapsulePartition*>(partitions.GetAt(0)));
    partitions.RemoveAt(0);
  }
}

bool WriteZeroEntries(int fd, int64_t offset, int count) {
  if (count <= 0) return true;
  if (!FitsImage(offset, int64_t{count} * kDirRecordSize)) return false;
  std::vector<unsigned char> zeros;
  for (int i = 0; i < count; ++i) {
    const auto entry = EncodeZeroEntry();
    zeros.insert(zeros.end(), entry.begin(), entry.end());
  }
  return platform::WriteAt(fd, zeros.data(), zeros.size(), offset);
}

}  // namespace

CapsuleFile::CapsuleFile() = default;

CapsuleFile::CapsuleFile(const char* path) {
  const int descriptor = platform::OpenForReading(path);
  if (descriptor < 0) {
    m_nLastError = errno;
    return;
  }
  m_hImageFile = descriptor;
  m_pszImagePath = path;
  m_pRawHeader = std::make_unique<unsigned char[]>(kHeaderSize);
  m_pImageHeader = std::make_unique<_NewImageHeader>();
}

CapsuleFile::~CapsuleFile() {
  DestroyPartitions(m_Partitions);
  ReleaseImageHeader();
}

void CapsuleFile::ReleaseImageHeader() {
  if (m_pImageHeader != nullptr) ReleasePartitionChain(m_pImageHeader.get());
  m_pImageHeader = nullptr;
}

int CapsuleFile::CreateCapsuleFile(const char* path) {
  if (m_hImageFile != 0) platform::Close(m_hImageFile);
  DestroyPartitions(m_Partitions);
  m_pCurrentPartition = nullptr;
  m_hImageFile = 0;
  m_nSectorCount = 0;
  m_nWriteOffset = 0;
  m_nCurrentPartition = -1;
  m_OpenItem.path.clear();
  m_pRawHeader = nullptr;
  m_pszImagePath = nullptr;
  ReleaseImageHeader();

  std::unique_ptr<unsigned char[]> header(new (std::nothrow) unsigned char[kHeaderSize]());
  const int descriptor = header ? platform::OpenForWriting(path) : -1;
  if (descriptor < 0) {
    m_nLastError = header ? errno : ENOMEM;
    return -1;
  }
  m_hImageFile = descriptor;
  m_pRawHeader = std::move(header);
  return 0;
}

int CapsuleFile::SetCompressionLevel(int level) {
  if (level < 0 || level > kMaxCompressionLevel) return -1;
  m_nCompressionLevel = level;
  return 0;
}

int CapsuleFile::WriteImageFileHeader(const char* version) {
  const bool writes = m_pRawHeader != nullptr && m_pImageHeader == nullptr;
  if (!writes || m_pCurrentPartition != nullptr) return -1;
  if (version == nullptr || std::strlen(version) >= kVersionSize) return -1;
  if (!FitsImage(m_nWriteOffset, kHeaderSize)) return -1;
  FillHeader(version, m_nCompressionLevel >= 1,
             std::span<unsigned char, kHeaderSize>(m_pRawHeader.get(), kHeaderSize));
  std::copy_n(m_pRawHeader.get(), kVersionSize, m_szVersion);
  if (!platform::WriteHere(m_hImageFile, m_pRawHeader.get(), kHeaderSize)) {
    m_nLastError = errno;
    return -1;
  }
  m_nWriteOffset += static_cast<int>(kHeaderSize);
  m_nCurrentPartition = -1;
  return 0;
}

int CapsuleFile::UpdatePartitionInfo(CapsulePartition* partition, int slot) {
  if (partition == nullptr || slot < 1 || slot > kMaxPartitions) return -1;
  _Partition* record = partition->GetHeaderPartitionInfo();
  record->SectorCount = m_nSectorCount;
  const auto bytes = EncodePartition(*record);
  const int64_t offset =
      int64_t{kPartitionRecordsOffset} + int64_t{kPartitionRecordSize} * (slot - 1);
  return platform::WriteAt(m_hImageFile, bytes.data(), bytes.size(), offset) ? 0 : -1;
}

int CapsuleFile::CloseImageFile() {
  return platform::OrOutOfMemory(-1, [&] { return Complete(); });
}

int CapsuleFile::Complete() {
  if (m_pCurrentPartition != nullptr) {
    const int open = m_pCurrentPartition->GetHierarchyLevel();
    if (!WriteZeroEntries(m_hImageFile, m_nWriteOffset, open)) return -1;
    m_nWriteOffset += static_cast<int>(kDirRecordSize) * open;
    if (m_pCurrentPartition->WritePartitionTrailer(m_hImageFile, m_nWriteOffset) != 0) return -1;
  }
  const unsigned char count = static_cast<unsigned char>(m_nCurrentPartition + 1);
  if (!platform::WriteAt(m_hImageFile, &count, 1, kPartitionCountOffset)) return -1;
  for (int i = 0; i < m_Partitions.GetCount(); ++i) {
    auto* partition = static_cast<CapsulePartition*>(m_Partitions.GetAt(i));
    if (UpdatePartitionInfo(partition, i + 1) != 0) return -1;
  }
  const int descriptor = m_hImageFile;
  m_hImageFile = 0;
  return platform::Close(descriptor);
}

int CapsuleFile::IsCompressed() {
  if (m_pRawHeader == nullptr) return 0;
  const HeaderBytes header(m_pRawHeader.get(), kHeaderSize);
  if (SelectLayout(header) == HeaderLayout::Fixed) return header[kCompressionFlagOffset];
  const size_t flag = size_t{platform::LoadLe16(&header[kTailOffsetOffset])} +
                      (kCompressionFlagOffset - kHeaderSectorAreaOffset);
  return flag < header.size() ? header[flag] : 0;
}

int CapsuleFile::IsPartitionSector(int n) {
  auto* partition = static_cast<CapsulePartition*>(m_Partitions.GetAt(n));
  return partition == nullptr ? 1 : partition->IsUnknown();
}

int CapsuleFile::GetImageFileHandle() { return m_hImageFile; }

char* CapsuleFile::GetVersionString() const { return const_cast<char*>(m_szVersion); }

const char* CapsuleFile::GetPathToImageFile() const { return m_pszImagePath; }

_NewImageHeader* CapsuleFile::GetImageFileHeader() const { return m_pImageHeader.get(); }

int CapsuleFile::GetCurrentPartition() const { return m_nCurrentPartition; }

CapsulePartition* CapsuleFile::GetCurrentPartitionPtr() { return m_pCurrentPartition; }

int CapsuleFile::GetCompressionLevel() const { return m_nCompressionLevel; }

int CapsuleFile::GetLastError() const { return m_nLastError; }

}  // namespace capsule
