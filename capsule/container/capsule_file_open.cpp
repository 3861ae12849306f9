// The index is made the current one of the process before any partition is read, since partitions
// take their offsets and items from it.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "capsule/container/capsule_file.h"
#include "capsule/container/image_index.h"
#include "capsule/container/reader_lock.h"
#include "capsule/container/stored_header.h"
#include "capsule/partition/directory_support.h"
#include "capsule/partition/partition.h"
#include "capsule/platform/file.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/runtime/debug_tracer.h"

namespace capsule {
namespace {

using DirectoryType = CapsulePartition::DirectoryType;

// How the sections of partitions with this system id are read.
DirectoryType DirectoryTypeFor(uint8_t systemId) {
  constexpr uint8_t kFat16SystemIds[] = {4, 5, 6, 14};
  if (systemId == kSystemIdNtfs) return CapsuleDirectoryEntry::DirTypeNtfs;
  const bool fat16 = std::find(std::begin(kFat16SystemIds), std::end(kFat16SystemIds), systemId) !=
                     std::end(kFat16SystemIds);
  return fat16 ? CapsuleDirectoryEntry::DirTypeFat16 : CapsuleDirectoryEntry::DirTypeFat32;
}

// The partition number that a path's drive part stands for: 0 without one.
int PartitionNumber(const char* drive) {
  if (drive == nullptr || *drive < '0' || *drive > '9') return 0;
  return *drive - '0';
}

// Makes the index of this image the current one.
void LoadIndex(const unsigned char* header, const char* path) {
  try {
    ImageIndex::DeleteCurrentInstance();
    const auto* bytes = static_cast<const char*>(static_cast<const void*>(header));
    ImageIndex::Instance(bytes, path)->ReadIndex();
  } catch (...) {
    throw 0;
  }
}

}  // namespace

int CapsuleFile::ReadImage(int headerOnly) {
  return platform::OrOutOfMemory(-1, [&] { return ReadParts(headerOnly == 0); });
}

int CapsuleFile::ReadParts(bool withPartitions) {
  if (m_pRawHeader == nullptr || m_pImageHeader == nullptr) return -1;
  CpsReaderLock reader;
  const int got = reader.ReadAt(m_hImageFile, m_pRawHeader.get(), kHeaderSize, 0);
  if (got != static_cast<int>(kHeaderSize)) {
    m_nLastError = got < 0 ? errno : EINVAL;
    return -1;
  }
  std::copy_n(m_pRawHeader.get(), kVersionSize - 1, m_szVersion);
  m_szVersion[kVersionSize - 1] = '\0';
  const StoredHeader header(std::span(m_pRawHeader.get(), kHeaderSize));
  std::copy(header.bytes.begin(), header.bytes.end(), m_pRawHeader.get());
  if (!header.decoded) {
    m_nLastError = EINVAL;
    return -1;
  }
  FillImageHeader(header.Bytes(), *header.decoded, m_pImageHeader.get());
  LoadIndex(m_pRawHeader.get(), m_pszImagePath);
  MainTracer().Trace("(CpsFile 547) Index read\n");
  if (!withPartitions) return 0;
  for (const _Partition& record : header.decoded->partitions) {
    const int result = ReadPartition(record);
    if (result != 0) return result;
  }
  return 0;
}

int CapsuleFile::ReadPartition(const _Partition& record) {
  auto partition = std::make_unique<CapsulePartition>(*this);
  const int offset = ImageIndex::GetCurrentIndexInstance()->GetNextPartitionOffset();
  int position = 0;
  const int result =
      partition->Read(DirectoryTypeFor(record.SystemId), m_hImageFile, offset, &position);
  if (result != 0) return result;
  if (!partition->SetUpHistories()) return -1;
  m_Partitions.Append(partition.get());
  static_cast<void>(partition.release());  // it is the list's now
  return 0;
}

_DirectoryEntry* CapsuleFile::GetDirectory(const char* path) {
  DirectorySupport segments(path);
  auto* partition =
      static_cast<CapsulePartition*>(m_Partitions.GetAt(PartitionNumber(segments.Drive())));
  return partition == nullptr ? nullptr : partition->GetDirectoryEntry(segments);
}

bool CapsuleFile::CloseImageFileHandle() {
  const int descriptor = m_hImageFile;
  m_hImageFile = 0;  // the number may soon stand for another file
  return descriptor > 0 && platform::Close(descriptor) == 0;
}

}  // namespace capsule
