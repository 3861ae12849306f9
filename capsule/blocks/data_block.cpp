#include "capsule/blocks/data_block.h"

#include <algorithm>
#include <utility>

#include "capsule/blocks/data_record.h"

namespace capsule {

namespace {

std::unique_ptr<unsigned char[]> Duplicate(const std::unique_ptr<unsigned char[]>& source,
                                           size_t size) {
  if (source == nullptr) return nullptr;
  auto copy = std::make_unique<unsigned char[]>(size);
  std::copy_n(source.get(), size, copy.get());
  return copy;
}

}  // namespace

CapsuleFileDataBlock::CapsuleFileDataBlock(DirectoryType type, int ntfsDirectory)
    : m_bNTFSDirectory(ntfsDirectory), m_DirectoryType(type) {}

CapsuleFileDataBlock::CapsuleFileDataBlock(const CapsuleFileDataBlock& other)
    : m_DirectoryType(other.m_DirectoryType) {
  *this = other;
}

// Everything that may find no memory comes first: a block that cannot become the other stays as it
// is.
CapsuleFileDataBlock& CapsuleFileDataBlock::operator=(const CapsuleFileDataBlock& other) {
  if (this == &other) return *this;
  auto compressed = Duplicate(other.m_pCompressed, other.m_nCompressedSize);
  auto uncompressed = Duplicate(other.m_pUncompressed, other.m_nUncompressedSize);
  m_pChunk = Duplicate(other.m_pChunk, kChunkSize);
  m_pCompressed = std::move(compressed);
  m_pUncompressed = std::move(uncompressed);
  m_nCompressedSize = other.m_nCompressedSize;
  m_nUncompressedSize = other.m_nUncompressedSize;
  m_MiniHeader = other.m_MiniHeader;
  m_bResident = other.m_bResident;
  m_nDataOffset = other.m_nDataOffset;
  m_bNTFSDirectory = other.m_bNTFSDirectory;
  m_bNTFSFileRecord = other.m_bNTFSFileRecord;
  m_bPrimaryData = other.m_bPrimaryData;
  m_bValid = other.m_bValid;
  m_bDecompressed = other.m_bDecompressed;
  m_DirectoryType = other.m_DirectoryType;
  m_nFileSize = other.m_nFileSize;
  return *this;
}

CapsuleFileDataBlock::~CapsuleFileDataBlock() = default;

int CapsuleFileDataBlock::IsLast() { return m_MiniHeader.Flag; }
int CapsuleFileDataBlock::IsValid() { return m_bValid; }
void CapsuleFileDataBlock::IsValid(int valid) { m_bValid = valid; }
int CapsuleFileDataBlock::IsDecompressed() { return m_bDecompressed; }
void CapsuleFileDataBlock::SetIsResident(bool resident) { m_bResident = resident; }
bool CapsuleFileDataBlock::IsResident() const { return m_bResident; }
int CapsuleFileDataBlock::IsPrimaryData() { return m_bPrimaryData; }
int CapsuleFileDataBlock::GetDataOffset() { return m_nDataOffset; }
int CapsuleFileDataBlock::NTFSIsFileRecord() { return m_bNTFSFileRecord; }
int CapsuleFileDataBlock::NTFSIsDirectory() { return m_bNTFSDirectory; }

}  // namespace capsule
