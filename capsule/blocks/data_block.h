// CapsuleFileDataBlock is one data block record: up to 8192 bytes of a file, as stored in an image.
//
// Writing: ReadFileData takes the next chunk of a file, Compress turns it into one LZS unit.
// Reading: Read takes a record's header and payload, Decompress makes the chunk of it.
//
//   int next = block.GetDUPDATAOffset();  // where a file's records begin
//   CapsuleFileDataBlock record(CapsuleDirectoryEntry::DirTypeFat32, 0);
//   while (record.Read(fd, next, &next) == 0 && record.IsValid() != 0) {
//     Show(record.GetDataOffset(), record.IsLast());
//     if (record.IsLast() != 0) break;
//   }
//
// The block owns its buffers; copies get buffers of their own. What its operations hand out lives
// until the next operation on the block. Null where something is needed is refused like any other
// failure. One thread uses a block at a time.
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

  // `type` tells which records Read expects: DirTypeNtfs those of 46-byte headers, the other two
  // those of 8 bytes. `ntfsDirectory`: not 0 in an NTFS directory.
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
  // take it for stored bytes. Settings and history are those of the library's one compressor;
  // `history` and `effort` are not used. 0, or -1 when the unit would pass 65535 bytes.
  int Compress(char* src, int len, char* dst, int* pOutLen, char* history, unsigned short effort);

  // The 8192 bytes that ReadFileData took, with zeros behind the end of the file; or null.
  char* GetChunkPtr();

  // Releases them; always null.
  char* DeleteChunkPtr();

  // Length of the file that the chunk is of, in bytes.
  int GetFileSize();

  // --- Reading (data_block_read.cpp) ---

  // Reads the record at `offset` of the image open on `fd`; advances `*pOffset` past it. A record
  // of another type gives 0 with IsValid() 0 and does not advance. -1 also for a payload that the
  // file does not hold. Payload and chunk of the record before are released.
  int Read(int fd, int offset, int* pOffset);

  // Makes the chunk's bytes, with the history that the chunk before left: an area of
  // LzsSizeOfDecompressionHistory() bytes, not looked at for a payload stored as it is. 0, without
  // data (IsDecompressed() 0) when the stated length is out of range; -1 on damage. A unit without
  // its end leaves a history with which no further unit decodes.
  int Decompress(CapsuleFile* file, char* history);

  // The same two for callers that tell damage from memory that is not there: std::bad_alloc is
  // thrown, the history as it was, and the block can be read and decompressed again.
  int ReadOrThrow(int fd, int offset, int* pOffset);
  int DecompressOrThrow(CapsuleFile* file, char* history);

  // 1 when the chunk that begins at `blockStart` of its file touches the range (ends count), else
  // 0;
  // `*pBlockEnd` is where the chunk ends.
  int IsWithinOffset(CapsuleFile* file, int blockStart, int rangeStart, int rangeEnd,
                     int* pBlockEnd);

  // Copies the chunk's part of the range to `*pOut` and advances it. 0, or -1 with nowhere to copy
  // to; nothing is copied of a block that is not decompressed.
  int WriteDecompressedBuffer(char** pOut, int blockStart, int rangeStart, int rangeEnd);

  // Releases payload and chunk: a FAT-style record must be read again before it is decompressed.
  void ClearOutBuffers();

  // Makes a copy of `data` the chunk. The header stays.
  void AssignUncompressedBuffer(const unsigned char* data, int len);

  // The chunk, or null.
  char* GetPtrToUncompressedDataBuffer();

  // --- NTFS partitions (data_block_ntfs.cpp) ---

  // Hands the children in the index blocks of a directory, decoded before, to its entry.
  void ReadDirectoryBlock(CapsuleDirectoryEntry* entry);

  // Takes type (its low byte), last flag and both lengths from `header`.
  void NTFSMINIHEADERtoMINIHEADER(const _NTFSMiniHeader* header);

  // The chunk's bytes; none before Decompress.
  std::span<unsigned char> Uncompressed();

  // --- Queries (data_block.cpp) ---
  int IsLast();   // 1 for the last record of a file
  int IsValid();  // 0 when Read met a record of another type
  void IsValid(int valid);
  int IsDecompressed();  // 1 while the chunk's bytes are held
  void SetIsResident(bool resident);
  bool IsResident() const;  // the data lies in the FILE record itself
  int IsPrimaryData();      // as an NTFS record states it
  int GetDataOffset();      // of the payload in the image; 0 before Read
  int NTFSIsFileRecord();
  int NTFSIsDirectory();

  // The record's header, as it was read or will be written.
  _MiniHeader& GetMiniHeader() { return m_MiniHeader; }

  // Whether the payload that Read took is still held.
  bool HasPayload() const { return m_pCompressed != nullptr; }

 private:
  int TakeFileData(const char* path);
  int ReadNtfsRecord(int fd, int offset, int* pOffset);
  int ReadPayload(int fd, int64_t offset);
  bool TakePayload(int fd, int64_t offset);
  int DecompressUnit(CapsuleFile* file, char* history);
  int ReadStored(CapsuleFile* file);
  void TakeChunk(std::unique_ptr<unsigned char[]> bytes, uint32_t size);
  void ReleaseChunk();

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
