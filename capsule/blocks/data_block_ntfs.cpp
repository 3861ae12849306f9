// Records of NTFS partitions: a header of 46 bytes, then the payload, which stays in the image
// until it is decoded.
#include "capsule/blocks/data_block.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule {

int CapsuleFileDataBlock::ReadNtfsRecord(int fd, int offset, int* pOffset) {
  CpsReaderLock reader;
  unsigned char bytes[kNtfsHeaderSize];
  if (reader.ReadAt(fd, bytes, sizeof bytes, offset) != static_cast<int>(sizeof bytes)) return -1;
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes);
  ClearOutBuffers();
  NTFSMINIHEADERtoMINIHEADER(&header);
  const uint32_t type = header.RecordType;
  m_bValid = IsNtfsFileRecord(type) || IsNtfsData(type) ? 1 : 0;
  if (m_bValid == 0) return 0;

  int position = *pOffset;
  if (!Advance(&position, kNtfsHeaderSize)) return -1;
  m_nDataOffset = position;
  if (!Advance(&position, header.Length)) return -1;
  *pOffset = position;
  m_bPrimaryData = static_cast<int32_t>(header.PrimaryData);
  m_bNTFSFileRecord = IsNtfsFileRecord(type) ? 1 : 0;
  if (type == kNtfsDirectoryRecord) m_bNTFSDirectory = 1;
  return 0;
}

void CapsuleFileDataBlock::NTFSMINIHEADERtoMINIHEADER(const _NTFSMiniHeader* header) {
  if (header != nullptr) m_MiniHeader = ToMiniHeader(*header);
}

void CapsuleFileDataBlock::ReadDirectoryBlock(CapsuleDirectoryEntry* entry) {
  if (entry == nullptr || m_bDecompressed == 0) return;
  entry->AddIndexBlocks({m_pUncompressed.get(), m_nUncompressedSize});
}

std::span<unsigned char> CapsuleFileDataBlock::Uncompressed() {
  if (m_bDecompressed == 0) return {};
  return {m_pUncompressed.get(), m_nUncompressedSize};
}

}  // namespace capsule
