// CapsuleFileDataBlock is one data block record: up to 8192 bytes of a file, as stored in an image.
//
// Writing: ReadFileData takes the next chunk of a file, Compress turns it into one LZS unit.
// Reading: Read takes a record's header and payload, Decompress makes the chunk of it.
// The block owns its buffers; copies get buffers of their own. One thread uses a block at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "capsule/export.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/partition/directory_records.h"

namespace capsule {

class CapsuleFile;

class CAPSULE_API CapsuleFileDataBlock {
 public:
  using DirectoryType = CapsuleDirectoryEntry::DirectoryType;

  CapsuleFileDataBlock(DirectoryType type, int ntfsDirectory);
  CapsuleFileDataBlock(const CapsuleFileDataBlock& other);
  CapsuleFileDataBlock& operator=(const CapsuleFileDataBlock& other);
  virtual ~CapsuleFileDataBlock();

  // --- Writing (data_block_write.cpp) ---

  // Reads the next chunk of the file at `path`, where the last call left off: 0 for the last chunk,
  // 8192 for every other, -1 on failure; after a failure the next file starts at its beginning.
  int ReadFileData(const char* path);

  // Compresses `len` bytes at `src` into `dst` (room for 12288) and stores the length of the unit
  // at `pOutLen`. A unit exactly as long as `len` gets one zero byte more, since readers would
  // take it for stored bytes. `history` and `effort` are not used.
  int Compress(char* src, int len, char* dst, int* pOutLen, char* history, unsigned short effort);
  char* GetChunkPtr();
  char* DeleteChunkPtr();
  int GetFileSize();

  // --- Reading (data_block_read.cpp) ---

  // Reads the record at `offset` of the image open on `fd`; advances `*pOffset` past it. A record
  // of another type gives 0 with IsValid() 0 and does not advance. -1 also for a payload that the
  // file does not hold.
  int Read(int fd, int offset, int* pOffset);

  // Makes the chunk's bytes, with the history that the chunk before left. 0 without data
  // (IsDecompressed() 0) when the stated length is out of range. A unit that does not end where
  // its chunk ends leaves a history with which no further unit decodes.
  int Decompress(CapsuleFile* file, char* history);

  // 1 when the chunk that begins at `blockStart` of its file touches the range; `*pBlockEnd` is
  // where the chunk ends.
  int IsWithinOffset(CapsuleFile* file, int blockStart, int rangeStart, int rangeEnd,
                     int* pBlockEnd);

  // Copies the chunk's part of the range to `*pOut` and advances it.
  int WriteDecompressedBuffer(char** pOut, int blockStart, int rangeStart, int rangeEnd);
  void ClearOutBuffers();
  void AssignUncompressedBuffer(const unsigned char* data, int len);
  char* GetPtrToUncompressedDataBuffer();

  // --- NTFS partitions (data_block_ntfs.cpp) ---

  // Hands the children in the index blocks of a directory, decoded before, to its entry.
  void ReadDirectoryBlock(CapsuleDirectoryEntry* entry);
  void NTFSMINIHEADERtoMINIHEADER(const _NTFSMiniHeader* header);

  // The chunk's bytes; none before Decompress.
  std::span<unsigned char> Uncompressed();

  // --- Queries (data_block.cpp) ---
  int IsLast();
  int IsValid();
  void IsValid(int valid);
  int IsDecompressed();
  void SetIsResident(bool resident);
  bool IsResident() const;
  int IsPrimaryData();
  int GetDataOffset();
  int NTFSIsFileRecord();
  int NTFSIsDirectory();
  _MiniHeader& GetMiniHeader() { return m_MiniHeader; }

  // Whether the payload that Read took is still held.
  bool HasPayload() const { return m_pCompressed != nullptr; }

 private:
  int ReadNtfsRecord(int fd, int offset, int* pOffset);
  int ReadPayload(int fd, int64_t offset);
  bool TakePayload(int fd, int64_t offset);
  int DecompressUnit(CapsuleFile* file, char* history);
  int ReadStored(CapsuleFile* file);

  _MiniHeader m_MiniHeader{};
  std::unique_ptr<unsigned char[]> m_pCompressed;
  std::unique_ptr<unsigned char[]> m_pUncompressed;
  bool m_bResident = false;
  int32_t m_nDataOffset = 0;
  int32_t m_bNTFSDirectory = 0;
  int32_t m_bNTFSFileRecord = 0;
  int32_t m_bPrimaryData = 0;
  int32_t m_bValid = 1;
  std::unique_ptr<unsigned char[]> m_pChunk;
  int32_t m_bDecompressed = 0;
  DirectoryType m_DirectoryType;
  int32_t m_nFileSize = 0;
  uint32_t m_nCompressedSize = 0;    // bytes held at m_pCompressed
  uint32_t m_nUncompressedSize = 0;  // bytes held at m_pUncompressed
};

}  // namespace capsule
