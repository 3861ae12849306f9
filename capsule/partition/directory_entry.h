// CapsuleDirectoryEntry holds the directory record group of one file or directory: an 8.3 entry,
// preceded by long-name entries when the two names differ.
//
// It is prepared from the host's file system (SetFileDirectory) and written (Write), or read from
// an image (Read). Operations give 0 for success and -1 for failure unless they say otherwise.
// `fd` is a descriptor of an image, `offset` an offset in it, `count` a running byte counter to
// which an operation adds what it wrote or read. Null where something is needed is a failure. One
// thread uses an entry at a time.
//
//   CapsuleDirectoryEntry entry;
//   int zeros = 0;
//   if (entry.SetFileDirectory(CapsuleDirectoryEntry::DirTypeFat32, path, fd, at, &zeros) == 0)
//     entry.Write(CapsuleDirectoryEntry::DirTypeFat32, fd, at + zeros, &written);
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "capsule/blocks/buffer.h"
#include "capsule/export.h"
#include "capsule/partition/directory_records.h"
#include "capsule/partition/ntfs_records.h"
#include "capsule/platform/cstring.h"

namespace capsule {

class CapsuleFileBlock;
class NtfsFile;
struct NtfsFileName;
namespace platform {
struct FindData;
}

class CAPSULE_API CapsuleDirectoryEntry {
 public:
  // Which kind of partition an entry belongs to; selects the copy of the record in use.
  enum DirectoryType { DirTypeFat16 = 0, DirTypeFat32 = 1, DirTypeNtfs = 2 };

  CapsuleDirectoryEntry();
  virtual ~CapsuleDirectoryEntry();
  CapsuleDirectoryEntry(const CapsuleDirectoryEntry&) = delete;
  CapsuleDirectoryEntry& operator=(const CapsuleDirectoryEntry&) = delete;

  // --- Preparing from the host's file system (directory_entry_prepare.cpp) ---

  // Prepares the entry for the file or directory at `path` and writes the pending zero entries at
  // `offset`. A null path makes a zero entry. The steps below are those that it takes.
  int SetFileDirectory(DirectoryType t, const char* path, int fd, int offset, int* count);

  // Makes this a zero entry, which closes a directory level.
  int SetZeroEntry(DirectoryType t);

  // The header in front of each record.
  void SetMiniHeader();

  // Times, attribute and size, then the names.
  int SetDirEntry(DirectoryType t);

  // From what the finder told; zeros in a zero entry. Always 0.
  int SetCapFileTimeAttrib(DirectoryType t);

  // Both names from the path, the checksum, and long-name records where the two differ.
  int SetCapFileName(DirectoryType t);

  // The long-name records, and the short name from its text.
  int SetCapLongFileName(DirectoryType t);

  // The short name in upper case, padded with blanks, into the copy that `t` selects.
  void SetCapShortFileName(DirectoryType t);

  // Builds one 32-byte long-name record in `out`: piece `ordinal` of `count`, of which `rest`
  // characters count in the last (0: all 13).
  void SetWideCharStr(CString& out, const CString& piece, int ordinal, int count, int rest);

  // Splits off the last component of `path` and splits that at its last '.': 1 when it has one,
  // else 0 with `ext` as it was. An empty name becomes ".", and "." becomes "..".
  int GetFileName(CString path, CString& name, CString& ext);

  // --- Writing and reading records (directory_entry_records.cpp) ---

  // The record group.
  std::vector<unsigned char> Encode(DirectoryType t) const;

  // Writes it at `offset`; the long-name records are released.
  int Write(DirectoryType t, int fd, int offset, int* count);

  // The 8 bytes of the header alone.
  int WriteMiniHeader(int fd, int offset, int* count);

  // The long-name records with their headers and the short entry; 1 for success.
  int WriteDirectoryEntry(DirectoryType t, int fd, int offset, int* count);

  // One zero entry of 40 bytes.
  int WriteZeroDirectoryEntry(int fd, int offset, int* count);

  // The zero entries pending in the library state. `flag` is not used.
  int SetZeroDirEntry(int fd, int offset, int* count, int& flag);

  // Reads one group at `offset`; in an NTFS partition the record's 46-byte header, uncounted.
  int Read(DirectoryType t, int fd, int offset, int* count);

  // Reads the rest of a long-name chain whose first record is `entry` (`size` bytes, 32) into
  // `entry`, which ends as the short one. At most 63 pieces. Reading goes on where the last Read of
  // this object has got to.
  int LongFileNameProcess(int size, void* entry, int fd, int* count);

  // Fills the long-name buffer from `length` UTF-16 units. Throws std::bad_alloc without memory.
  void FormatLongFileName(const unsigned short* name, unsigned char length);

  // --- From NTFS records (directory_entry_ntfs.cpp) ---

  // The record's header from that of an NTFS record.
  void FillDirHeader(_NTFSMiniHeader h);

  // Fills the entry from `size` / 1024 FILE records, whose displaced bytes are restored in place.
  void FileRecordtoDirectoryEntry(void* records, long size);

  // Times and attributes.
  void PutStdInfoIntoDirEntry(const _StandardInformation* si);

  // A short or long name; `index` counts the names met before. The name's units follow `fn`.
  void PutFileNameIntoDirEntry(const _FileName* fn, int index);

  // 1 unless `ns` is that of a Win32-only name.
  int IsShortFileName(unsigned char ns);

  // Notes a child by the low 32 bits of its file reference, once.
  void NTFSAddEntry(long ref);

  // Notes the children in index blocks of a directory whose FILE records have been filled in.
  void AddIndexBlocks(std::span<unsigned char> blocks);

  // Whether the FILE record refers to further ones for some of its attributes.
  bool HasAttributeList() const;

  // The name that tells most among those of the FILE record; empty without one.
  const std::u16string& NtfsFullName() const;

  // --- Names and queries (directory_entry.cpp) ---

  // The short text. Of an entry that was read: 8 name bytes, '.', 3 extension bytes, blanks kept;
  // the first two make it so from `entry` (32 bytes), or the copy that `t` selects. Of one that was
  // prepared: name, and '.' and extension when there is one.
  CString& ShortName(const char* entry);
  CString& ShortName(DirectoryType t);
  CString& ShortName();

  // The long name's UTF-16LE units in on-disk piece order, last piece first, with terminator and
  // padding.
  CapsuleBuffer& LongFileName();

  // 1 when the short text is `s`, byte for byte.
  int operator==(const CString& s) const;

  // Takes the short text from `entry` and prints it to standard output, with the attribute.
  void PrintEntryName(const char* entry);

  // 1 for a zero entry.
  int IsEmpty() const;

  // 0x10 for a directory, else 0.
  int IsDirectory() const;

  // DOS attributes, as in _ShortDirEntry.
  int GetAttribute() const;

  // Bytes of the file's content.
  uint32_t FileSize() const;

  // Payload bytes that the record's header states.
  int CompressedLength() const;

  // Not 0 for a directory of an NTFS partition.
  int NTFSIsDirectory() const;

  // The type of the last Read.
  DirectoryType GetDirectoryType() const;

  // Copies the 8.3 entry that `t` selects over the other one.
  void PopulateOtherStructure(DirectoryType t);

  // Releases the long-name records that were prepared.
  void RemoveCPtrArray();

  // The file block that holds this entry; not owned.
  void SetFileBlock(CapsuleFileBlock* block);
  CapsuleFileBlock* GetParentFileBlockPtr() const;

  // With another value than 0 and 1, SetMiniHeader leaves flag and param of a file as they are.
  void SetLastDirectoryEntry(int value);

  // NTFS directories: how many children are noted, and how many of them the tree has taken.
  int GetNumEntries() const;
  int GetCurEntry() const;
  void IncCurEntry();

  // For the host's use: the library neither reads nor writes it.
  static CString m_strPreviousCapFilePath;

  // The record that a host receives; lives as long as this object.
  _DirectoryEntry* GetRecord() { return &m_Record; }
  const _DirectoryEntry* GetRecord() const { return &m_Record; }

  // The copy of the 8.3 entry that `t` selects.
  _ShortDirEntry& EntryFor(DirectoryType t);
  const _ShortDirEntry& EntryInUse() const;

 private:
  using LongEntry = std::array<unsigned char, 32>;

  uint8_t _CalculateChecksum(const char* name) const;
  int ReadGroup(DirectoryType t, int fd, int offset, int* count);
  int ReadNtfsHeader(int fd, int offset);
  void ForgetNtfsEntry();
  NtfsFile& OwnNtfsFile();
  void KeepName(const NtfsFileName& name, int index);

  // What lies behind the first header of the group: long-name records, each with the header of the
  // record behind it, and the short entry.
  std::vector<unsigned char> EncodeEntries(DirectoryType t) const;

  // Takes the records of a long-name chain from `records`; false when it is damaged.
  bool TakeLongNameChain(std::span<const unsigned char> records, void* entry, int* count);

  // Gives back the memory that the long name does not need: images have very many names.
  void FitLongName();

  _DirectoryEntry m_Record{};
  uint8_t m_nChecksum = 0;
  CapsuleBuffer m_LongFileName;
  DirectoryType m_DirectoryType = DirTypeFat32;
  CString m_strShortName;
  CString m_strLongName;
  std::vector<LongEntry> m_LongEntries;  // last piece first
  CString m_strPath;
  CString m_strName;
  CString m_strExt;
  CString m_strShortPath;
  int32_t m_nLongEntryChars = 13;
  int32_t m_nNameChars = 8;
  int32_t m_nExtChars = 3;
  int32_t m_nDirectoryFlag = 0;
  int32_t m_bZeroEntry = 0;
  std::unique_ptr<platform::FindData> m_pFindData;  // null until the finder told something
  int32_t m_nLastDirectoryEntry = 0;
  CapsuleFileBlock* m_pParentFileBlock = nullptr;
  int32_t m_nCurEntry = 0;
  std::unique_ptr<NtfsFile> m_pNtfsFile;  // none before there is something in it
  int64_t m_nReadOffset = 0;              // where the next record of the group being read begins
};

}  // namespace capsule
