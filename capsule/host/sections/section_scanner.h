// SectionScanner finds everything in an image without an index: it steps through the sections
// record by record, 8 + length bytes each, and tells what it passes in file order.
//
//   SectionScanner scanner(image);
//   SectionItem item;
//   while (scanner.Next(&item)) Use(item);
//
// It knows at every item which folder it lies in, by the rule of the readers: a folder's group
// opens it, "." and ".." open nothing, a zero entry closes one folder and at the top level closes
// none. In sections of NTFS records it knows by the references that FILE records hold to the
// folders of their names. There are as many sections as the header has partition records that are
// not all zero, at most as many as its partition count; bytes behind the last trailer are not
// looked at.
//
// Memory is bounded by the depth of the tree. Damage throws Error with the offset and the numbers.
// One thread uses a scanner.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/blocks/data_record.h"
#include "capsule/container/stored_header.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/sections/ntfs_folders.h"
#include "capsule/host/sections/open_folders.h"
#include "capsule/partition/entry_group.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

// One step: all records of one thing, from `offset` to `offset` + `length`.
struct SectionItem {
  enum class Kind {
    Section,    // the header of a section, 2056 bytes
    Directory,  // the record group of a folder; what follows lies in it
    DotEntry,   // the group of "." or "..", which opens nothing
    ZeroEntry,  // closes one level
    File,       // a record group and the data block records behind it
    Trailer,    // the end of a section, 1544 bytes
    NtfsEnd,    // the record that ends a section of NTFS records, and the trailer if there is one
  };

  Kind kind = Kind::Section;
  uint32_t section = 0;  // its number, from 0
  uint64_t offset = 0;
  uint64_t length = 0;
  uint64_t dataOffset =
      0;  // File: where its data block records begin. NtfsEnd: where its record ends
  _ShortDirEntry entry{};   // Directory, DotEntry, File: the short entry
  std::string name;         // of an entry: name bytes, the long name if there is one
  std::string shortName;    // the same of the short one
  std::string nameProblem;  // what is wrong with the long name
  std::string path;         // what it is called with the folders above it, '/' between; empty when
                            // longer than kMaxScannedPath

  // In sections of NTFS records:
  bool isNtfs = false;
  bool isRoot = false;   // Directory: the root of the volume, without a name
  bool isStray = false;  // no folder before it is the one that it belongs to
  size_t depth = 0;      // folders above it, the root left out
  std::string problem;   // what is wrong with a record behind its first

  // Whether people are shown it. A DotEntry is one only when it has a long name.
  bool IsEntry() const {
    return kind == Kind::File || kind == Kind::Directory ||
           (kind == Kind::DotEntry && !name.empty());
  }

  // A long name that cannot be believed names nothing.
  const std::string& Called() const { return nameProblem.empty() ? name : shortName; }

  RecordKind Records() const { return isNtfs ? RecordKind::Ntfs : RecordKind::Fat; }
};

// Longer paths are not spelled out, so that nested folders cannot make work grow with the square
// of the image's size.
inline constexpr size_t kMaxScannedPath = 4096;

class SectionScanner {
 public:
  // Reads the header. Throws when it cannot be used.
  explicit SectionScanner(const ImageFile& image);

  // The next item; false behind the last section.
  bool Next(SectionItem* item);

  // After damage:
  // Goes on at `offset`, where an item begins. `inSection`: false when the header of the next
  // section is there. `limit`: where the item ends at the latest.
  void Resume(uint64_t offset, bool inSection, uint64_t limit = kMaxImageSize);

  // Takes the header of the next section for read, whatever its bytes are.
  void PassSectionHeader(SectionItem* item);

  // NTFS sections: opens a folder that is lost, `depth` folders below the root; the next item whose
  // folder is not known belongs to it.
  void OpenLost(const std::string& folder, size_t depth);

  // The same for the stray item that came last, and what belongs to the same folder, below the
  // innermost folder; `item` then says so.
  void AdoptStray(const std::string& folder, SectionItem* item);

  // Where the next item begins; behind the last section: the end of the last trailer.
  uint64_t Position() const { return m_position; }
  bool InSection() const { return m_inSection; }
  bool InNtfsSection() const { return m_inSection && m_ntfs; }

  // The header as stored, and what it says.
  HeaderBytes RawHeader() const { return HeaderBytes(m_rawHeader.data(), kHeaderSize); }
  const DecodedHeader& Header() const { return m_header; }
  bool IsScrambled() const { return m_rawHeader[kScrambleFlagOffset] == 1; }
  uint32_t SectionCount() const { return m_sectionCount; }

 private:
  struct Record {
    _MiniHeader header;
    std::span<const unsigned char> payload;  // directory records only
  };

  void ReadHeader();
  void ScanSectionHeader(SectionItem* item);
  void BeginSection(SectionItem* item);
  void ScanTrailer(SectionItem* item);
  void ScanGroup(SectionItem* item);
  void ScanEntry(SectionItem* item, const EntryGroup& group);
  void ScanData(SectionItem* item);
  std::string PathOf(const std::string& name) const;
  void ScanNtfs(SectionItem* item);
  void ScanNtfsEnd(SectionItem* item, uint32_t recordLength);
  void PlaceNtfs(SectionItem* item);
  Record TakeRecord(const char* what);
  _MiniHeader PeekHeader(uint64_t offset, const char* what);
  [[noreturn]] void Fail(const char* what, uint64_t offset, const std::string& reason) const;

  std::string m_name;
  FileWindow m_window;
  uint64_t m_fileLength = 0;
  std::vector<unsigned char> m_rawHeader;
  DecodedHeader m_header;
  std::vector<uint8_t> m_systemIds;  // of the sections
  uint32_t m_sectionCount = 0;
  uint32_t m_nextSection = 0;
  bool m_inSection = false;
  uint64_t m_position = kHeaderSize;
  uint64_t m_itemLimit = kMaxImageSize;
  OpenFolders m_folders;
  uint64_t m_sectionStart = 0;
  bool m_ntfs = false;    // the section is one of NTFS records
  NtfsEntry m_ntfsEntry;  // the one that came last
  NtfsFolders m_ntfsFolders;
};

}  // namespace capsule::host
