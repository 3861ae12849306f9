// CapsuleFile is a host's handle on one image file.
//
//   CapsuleFile made;
//   made.CreateCapsuleFile("new.cap");
//   made.SetCompressionLevel(5);
//   made.WriteImageFileHeader("Capsulate 1");
//   made.InsertFile("C:\\a", 0);
//   made.InsertFile("C:\\a\\b.txt", 0);
//   made.CloseImageFile();
//   // What is read is what an index names.
//   const host::IndexReport report = host::IndexWriter("new.cap").Write();
//
//   CapsuleFile read("new.cap");
//   if (read.GetImageFileHandle() != 0 && read.ReadImage(0) == 0)
//     for (auto* e = read.GetDirectory("0:\\A       .   "); e; e = e->Next) Show(*e);
//   read.CloseImageFileHandle();
//
// The partition records of the header:
//   const _NewImageHeader* header = file.GetImageFileHeader();
//   for (auto* node = header->Partitions; node; node = node->Next) Show(node->Record.SystemId);
//
// Operations give 0 for success and -1 for failure unless they say otherwise; one that comes out of
// order, or is given null where something is needed, fails and changes nothing. The object owns its
// header buffers and partitions; what it hands out lives as long as it does, or until
// CreateCapsuleFile. One thread drives an object; one image at a time is opened in a process.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "capsule/container/header_records.h"
#include "capsule/export.h"
#include "capsule/partition/directory_records.h"
#include "capsule/platform/cstring.h"
#include "capsule/runtime/cps_list.h"

namespace capsule {

class CapsulePartition;
struct _ListNode;

class CAPSULE_API CapsuleFile {
 public:
  CapsuleFile();

  // Opens `path` for reading; GetImageFileHandle() is 0 and GetLastError() tells why when it
  // cannot. The string must outlive the object.
  explicit CapsuleFile(const char* path);

  // Does not close the file.
  virtual ~CapsuleFile();
  CapsuleFile(const CapsuleFile&) = delete;
  CapsuleFile& operator=(const CapsuleFile&) = delete;

  // --- Writing (capsule_file.cpp, capsule_file_insert.cpp) ---

  // Opens or creates the file; an existing one keeps its bytes until they are overwritten. What the
  // object had before (a file, partitions, headers) is closed and released.
  int CreateCapsuleFile(const char* path);

  // 0 (stored) to 9; other values give -1 and change nothing.
  int SetCompressionLevel(int level);

  // `version`: up to 255 bytes. Comes before the first partition. The level set at this moment
  // decides whether the image is a compressed one.
  int WriteImageFileHeader(const char* version);

  // Adds the file or directory at `path` to partition `partition` (0 to 9, never lower than in the
  // call before). A path that ends in '?' is skipped. A failed insertion leaves the write offset,
  // all bytes before it, and the current partition as they were.
  //
  // Only the last component of a path is stored. A directory is inserted before what it holds, and
  // all of that before anything else; the components that a path shares with the one before tell
  // which directories end between them. They are compared byte by byte, `/` being `\`, so "C:\A" is
  // not "C:\a". A directory on the way that was not inserted is not in the image: what lies in it
  // goes to the innermost one that is open, and when it is left that one is closed in its place.
  //
  // A root like "C:\", or a directory with a separator behind it, is stored as three entries ".",
  // "." and "..", and what follows lies beside them. A name that is its own 8.3 alias but for case
  // is stored in capitals alone; any other keeps its spelling beside its alias.
  int InsertFile(const char* path, int partition);

  // Makes `partition` the current one: closes the section before and begins a new one. InsertFile
  // does so by itself; this is for a partition that may stay empty. Same rules and failures.
  int BeginPartition(int partition);

  // For items that the caller encodes and writes itself, at GetWriteOffset(), behind the zero
  // entries that close levels before them; `*zeroEntries`: how many. `path`: as InsertFile wants
  // it, in the current partition.
  int BeginItem(const char* path, bool isDirectory, int* zeroEntries);

  // Takes up the item that was begun last, zero entries and all: `bytes` from the write offset on,
  // which moves behind them. `sourceLength`: of a file. -1 when the image would grow too long; then
  // the item is still begun. An item that is not ended is in nobody's way: another BeginItem takes
  // its place, and InsertFile or BeginPartition forget it.
  int EndItem(int64_t bytes, uint32_t sourceLength);

  // Whether so many bytes more leave room for all that must follow them.
  bool HasRoomFor(int64_t bytes) const;

  // Whether the name tells that the file is compressed by itself, and so is stored at any level.
  static bool IsStoredByName(const std::string& path);

  // Writes the record of `partition` into slot 1 to 10 of the header, with the sector count so far.
  // CloseImageFile does so for all.
  int UpdatePartitionInfo(CapsulePartition* partition, int slot);

  // Closes open levels, writes the last trailer, completes the header, closes the file. After a
  // failure the file is open still: CloseImageFileHandle gives it up.
  int CloseImageFile();

  // --- Reading (capsule_file_open.cpp) ---

  // Reads header and index and, with `headerOnly` 0, every partition's tree; called again, it reads
  // them again and appends the partitions once more. -1 with EINVAL in GetLastError() for a header
  // that is cut short or cannot be decoded, the result of a partition that cannot be read (those
  // before it stay), -1 without memory. Throws the int 0 when the index cannot be read.
  int ReadImage(int headerOnly);

  // The listing of a directory, "0:\NAME    .EXT" with padded short names, compared exactly: its
  // records chained in image order. Null when not found or empty.
  _DirectoryEntry* GetDirectory(const char* path);

  // Closes the file and forgets its descriptor; extraction is over then. False when none was open.
  bool CloseImageFileHandle();

  // --- Queries (capsule_file.cpp) ---

  // Whether data blocks are compressed: the header's compression flag; 0 without a header.
  int IsCompressed();

  // 1 when partition `n` has no file system or does not exist.
  int IsPartitionSector(int n);

  // The descriptor, 0 when none is open.
  int GetImageFileHandle();

  // The version text of the header, as written or read last: at most 255 bytes.
  char* GetVersionString() const;

  // As given to the constructor, null in a writer.
  const char* GetPathToImageFile() const;

  // The decoded header, which ReadImage fills; null in a writer.
  _NewImageHeader* GetImageFileHeader() const;

  // The partition being written: its number, -1 before the first, and the object, or null.
  int GetCurrentPartition() const;
  CapsulePartition* GetCurrentPartitionPtr();
  int GetCompressionLevel() const;

  // errno of the last opening, header write or header read that failed; 0 when none did.
  int GetLastError() const;

  // The partitions in order: those inserted into, or those read.
  CpsList& GetPartitions() { return m_Partitions; }

  // Offset of the first byte behind the last item written.
  int GetWriteOffset() const { return m_nWriteOffset; }

 private:
  void ReleaseImageHeader();
  int Complete();
  int ReadParts(bool withPartitions);
  int ReadPartition(const _Partition& record);
  static int _IsKnownCompressed(CString& extension);
  uint32_t _BuildPathSegmentList(_ListNode** head, const CString& path);
  int _ContrastPathSegmentLists(_ListNode* previous, _ListNode* current);
  int _RemoveLastDirFromPathString(CString& path);

  // What a failed insertion goes back to.
  struct InsertionStart {
    int64_t fileLength;
    int writeOffset;
    int partition;
    CapsulePartition* current;
  };
  int Insert(const CString& path, const CString& trimmed, int partition);
  int SwitchPartition(int partition);
  int LevelsToClose(const CString& directory);
  int WriteItem(const CString& path, bool directory);
  // Runs `step`; when it does not give 0, takes back what it wrote.
  template <typename Step>
  int AllOrNothing(Step step);
  void RollBack(const InsertionStart& start);

  // The item that was begun, and not ended; without a path, none.
  struct OpenItem {
    CString path;
    CString directory;
    bool isDirectory = false;
  };

  uint32_t m_nSectorCount = 0;
  int m_hImageFile = 0;
  char m_szVersion[256] = {};
  const char* m_pszImagePath = nullptr;
  std::unique_ptr<unsigned char[]> m_pRawHeader;
  CpsList m_Partitions;
  CapsulePartition* m_pCurrentPartition = nullptr;
  int m_nLastError = 0;
  int m_nWriteOffset = 0;
  int m_nCompressionLevel = 0;
  int m_nCurrentPartition = -1;
  std::unique_ptr<_NewImageHeader> m_pImageHeader;
  OpenItem m_OpenItem;
};

}  // namespace capsule
