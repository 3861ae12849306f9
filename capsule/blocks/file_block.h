// CapsuleFileBlock is one file or directory of a partition: its directory entry, the data blocks
// that hold its contents, and for a directory read from an image its children.
//
// It owns its children and its data blocks. An extraction buffer lives until the next extraction of
// the same block. `fd` is a descriptor of the image, offsets are those in it. Operations give 0 for
// success and -1 for failure unless they say otherwise; null where something is needed is a
// failure. One thread uses the blocks of one partition at a time.
//
//   block.ReadDataBlocks(fd, block.GetDUPDATAOffset());
//   int length = wanted;
//   if (block.DecompressFile(&file, start, &length) == 0 && length >= 0)
//     Use(block.GetPtrToDecompressedFile(), length);
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "capsule/export.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/platform/cstring.h"
#include "capsule/runtime/cps_list.h"

namespace capsule {

class CapsuleFile;
class CapsuleFileDataBlock;
class CapsulePartition;
struct FileExtraction;

class CAPSULE_API CapsuleFileBlock {
 public:
  using DirectoryType = CapsuleDirectoryEntry::DirectoryType;

  // `parent`: null at the top level; not owned. `partition` must outlive the block.
  CapsuleFileBlock(CapsuleFileBlock* parent, CapsulePartition& partition);
  virtual ~CapsuleFileBlock();
  CapsuleFileBlock(const CapsuleFileBlock&) = delete;
  CapsuleFileBlock& operator=(const CapsuleFileBlock&) = delete;

  // --- Writing (file_block_write.cpp) ---

  // Prepares the entry of `path` and writes the pending zero entries and the record group at
  // `offset`; adds their bytes to `*pTotal`.
  int WriteDirEntry(DirectoryType type, const char* path, int fd, int offset, int* pTotal);

  // Reads the whole file into data blocks of 8192 bytes, behind those that are there.
  int ReadAndChunk(const char* path);

  // Writes one record a data block from `offset` on. `level`: 0 stored, 1-3 fast, 4-6 medium,
  // other maximum. `history` is not used. A block is written once: its chunk is released then.
  int WriteFile(int fd, int offset, int* pTotal, int level, char* history);

  // The same bytes as ReadAndChunk and WriteFile, one chunk in memory at a time. The file must
  // have the size that its entry states and not be written to meanwhile.
  int StreamFile(const char* path, int fd, int offset, int* pTotal, int level);

  // --- Reading (file_block_read.cpp) ---

  // Reads the entry at `offset`; advances `*pOffset` past what it consumed. Data blocks of an entry
  // read before are released. `history`: the section's, for NTFS partitions; else not used.
  int Read(DirectoryType type, int fd, int offset, int* pOffset, CapsuleFile& file, char* history);

  // Reads header and payload of every data block from `offset` on: all of the file's payloads are
  // in memory afterwards. DecompressFile reads what it needs by itself where this was not called.
  bool ReadDataBlocks(int fd, int offset);

  // Gives every block without children, here and below, its history; -1 at the first that has one,
  // or, with none given, without memory.
  int SetUpDecompressHeader(CapsuleFile& file, char* history, int size);

  // The same for all of `blocks`, CapsuleFileBlock pointers.
  static int SetUpHistories(const CpsList& blocks, char* history, int size);

  // Takes the `size` bytes at `history`, which stay the caller's and must outlive the block, as
  // what the first data block is decoded with. -1 when that was done before, or without memory.
  int SetUpHistoryBuffer(char* history, int size);

  // Copies the block's own history over the one it was set up from; -1 before that.
  int ResetHistoryBuffer();

  // Always 0.
  int IsHeaderCreated(int);

  // --- Reading in NTFS partitions (file_block_read_ntfs.cpp) ---

  // Finds the data of a file: in its FILE record, or in the records from those of `from` on, whose
  // headers are read. False when records are missing. DecompressFile does it where this was not
  // called.
  bool ReadNTFSDataBlocks(CapsuleFile* file, CapsuleFileBlock* from);

  // Takes data that lies in the FILE record itself into the first data block. False only when the
  // record was read and holds no such data.
  bool IsResidentData(CapsuleFile* file);

  // --- Extracting (file_block_extract.cpp) ---

  // Extracts `*pLen` bytes from byte `start` on; `*pLen` becomes how many there are. -1 for a
  // directory, a null pointer, a start at or behind the end, or without memory; 0 with `*pLen` -1
  // when the extraction failed. `file` is the CapsuleFile of the image. Ranges may come in any
  // order; forward ones decode every data block once.
  int DecompressFile(void* file, int start, int* pLen);

  // The step of DecompressFile that fills the extraction buffer, which must hold `len` bytes.
  int DecompressFileBlocks(CapsuleFile* file, int start, int len);

  // The bytes extracted last, or null. Valid until the next extraction.
  void* GetPtrToDecompressedFile();

  // Releases them.
  void ClearDecompressedFilePointer();

  // Destroys children and data blocks; there is nothing to extract afterwards.
  void Close();

  // --- Queries (file_block.cpp) ---

  // Appends a child, which is the block's own from then on.
  void InsertFileBlock(CapsuleFileBlock* child);

  // The children, CapsuleFileBlock pointers in image order.
  CpsList& FileList();

  // The data blocks, prepared if they were not yet; none when there is no memory for that.
  CpsList& GetFileDataBlockList();
  CapsuleFileBlock* ParentFileBlock();
  CapsuleDirectoryEntry& GetDirectoryEntry();
  _DirectoryEntry* GetDirectoryPointer();
  DirectoryType GetDirectoryType();

  // The long name as UTF-16LE units in on-disk piece order, last piece first, and their bytes; null
  // and 0 without one. Owned by the entry.
  char* GetLongFileName();
  int GetLongFileNameLength();

  // Where the entry's records begin, and their last byte (FAT-style partitions).
  int GetFileBlockStartOffset() const;
  int GetFileBlockEndOffset() const;

  // Where the file's first data block record begins; in NTFS partitions, behind its FILE record.
  int GetDUPDATAOffset() const;
  int GetNTFSDataBlockStart() const;

  // The partition's compression history.
  char* GetParentPartitionHistory();

  // 1 for a zero entry, which closes a directory level.
  int IsEndingMark();

  // 1 when the entry's short text is `s`, byte for byte.
  int operator==(const CString& s) const;

  // Does nothing.
  void PrintYourself(CString s);

  // The host's path of the file that was written.
  const CString& GetFilePath() const { return m_strFilePath; }
  void SetFilePath(const char* path) { m_strFilePath = path == nullptr ? "" : path; }

 private:
  void TakeChildren(CapsuleFileBlock** first);

  // Data blocks as stored (file_block_read.cpp).
  void PrepareDataBlocks(int fd);
  void PrepareFatDataBlocks(int fd);
  void ForgetDataBlocks();
  CapsuleFileDataBlock* DataBlockAt(int index) const;
  FileExtraction& Extraction();
  void LocateDataBlocks();
  void SyncPlaces();

  // NTFS partitions (file_block_read_ntfs.cpp).
  int ReadNtfsEntry(int fd, int* pOffset, CapsuleFile& file, char* history);
  int TakeNtfsRecord(int fd, int* pOffset, CapsuleFile& file, char* history);
  int TakeCompanions(int fd, int offset, CapsuleFile& file, char* history);
  void PrepareNtfsDataBlocks(int fd);
  bool LocateNtfsData(CapsuleFile* file, int start);
  bool LocateResidentData(CapsuleFile* file);
  bool ReadNtfsData(int fd, CapsuleFileDataBlock* block, int* offset);
  void KeepResidentData(std::span<const unsigned char> value);
  bool HoldsResidentData() const;
  int CopyResidentData(int start, int len);

  // Writing (file_block_write.cpp).
  int AppendChunks(const char* path);
  int StreamRecords(const char* path, int fd, int offset, int* pTotal, int level);

  // Decoding in order (file_block_extract.cpp).
  int FillExtractionBuffer(CapsuleFile* file, int64_t start, int len);
  int DecompressRange(CapsuleFile* file, int start, int len);
  bool EnsureRecord(CapsuleFile* file, int index);
  int DecodeDataBlock(CapsuleFile* file, int index);
  int DecodeUpTo(CapsuleFile* file, int index);
  void KeepCheckpoint();
  bool RewindHistory(int index);
  void ReleaseOutside(int64_t start, int64_t end);

  CString m_strFilePath;
  int32_t m_nDUPDATAOffset = 0;
  CpsList m_FileList;
  CpsList m_DataBlocks;
  CapsuleDirectoryEntry m_DirectoryEntry;
  int32_t m_nStartOffset = 0;
  int32_t m_nEndOffset = 0;
  int32_t m_nNTFSDataBlockStart = 0;
  CapsuleFileBlock* m_pParent;
  std::unique_ptr<unsigned char[]> m_pDecompressedFile;
  int32_t m_nDecompressedSize = 0;
  char* m_pSharedHistory = nullptr;
  std::shared_ptr<const std::vector<unsigned char>> m_pInitialHistory;  // as it was set up
  std::unique_ptr<unsigned char[]> m_pHistoryCopy;  // the same, moved on; null until first used
  int32_t m_nHistorySize = 0;
  CapsulePartition* m_pPartition;
  DirectoryType m_DirectoryType;
  bool m_bDataBlocksPending = false;  // a file was read, its data blocks are not prepared yet
  bool m_bNtfsDataPending = false;    // data blocks are prepared, their records not found yet
  std::unique_ptr<FileExtraction> m_pExtraction;
};

}  // namespace capsule
