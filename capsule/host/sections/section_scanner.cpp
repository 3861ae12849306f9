// Every offset is 64 bits wide and compared with the file's length before it is used:
//   1. m_position never passes the file's length.
//   2. Every step moves m_position forward by at least 8 bytes, so a walk ends.
//   3. An item is handed out only when all of its records lie inside the file.
#include "capsule/host/sections/section_scanner.h"

#include <algorithm>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr uint64_t kClosingBytes = kDirRecordSize;  // of a trailer, read as a zero entry

bool IsAllZero(std::span<const unsigned char> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; });
}

std::string Numbers(uint64_t has, const char* middle, uint64_t other, const char* end) {
  return std::to_string(has) + middle + std::to_string(other) + end;
}

}  // namespace

SectionScanner::SectionScanner(const ImageFile& image)
    : m_name(image.Name()), m_window(image), m_fileLength(image.Size()) {
  if (m_fileLength > static_cast<uint64_t>(kMaxImageSize)) {
    throw Error(ErrorKind::NotAnImage, m_name,
                "not an image: " +
                    Numbers(m_fileLength, " bytes, at most ", kMaxImageSize, " are possible"));
  }
  ReadHeader();
}

void SectionScanner::ReadHeader() {
  const auto bytes = m_window.At(0, kHeaderSize);
  if (bytes.size() < kHeaderSize) {
    throw Error(ErrorKind::NotAnImage, m_name,
                "not an image: " + Numbers(bytes.size(), " bytes, a header has ", kHeaderSize, ""));
  }
  m_rawHeader.assign(bytes.begin(), bytes.end());
  StoredHeader header(bytes);
  if (!header.decoded) throw Error(KindOfBadHeader(header), m_name, "header: " + header.problem, 0);
  m_header = std::move(*header.decoded);
  m_systemIds = SectionsOf(m_header);
  m_sectionCount = static_cast<uint32_t>(m_systemIds.size());
}

bool SectionScanner::Next(SectionItem* item) {
  if (!m_inSection && m_nextSection == m_sectionCount) return false;
  *item = SectionItem();
  item->offset = m_position;
  if (!m_inSection) {
    ScanSectionHeader(item);
  } else if (m_ntfs) {
    ScanNtfs(item);
  } else if (PeekHeader(m_position, "record").Type == kRecordPartition) {
    ScanTrailer(item);
  } else {
    ScanGroup(item);
  }
  item->length = m_position - item->offset;
  return true;
}

void SectionScanner::Resume(uint64_t offset, bool inSection, uint64_t limit) {
  m_position = std::min(offset, m_fileLength);
  m_inSection = inSection;
  m_itemLimit = limit;
}

void SectionScanner::ScanSectionHeader(SectionItem* item) {
  const uint64_t start = m_position;
  const std::string what = "section " + std::to_string(m_nextSection);
  if (kPartitionHeaderSize > m_fileLength - start) {
    Fail(what.c_str(), start,
         "header is " + Numbers(kPartitionHeaderSize, " bytes, ", m_fileLength - start, " remain"));
  }
  m_position += kSectorAreaSize;
  const Record record = TakeRecord(what.c_str());
  if (record.header.Type != kRecordPartition || record.header.Length != kPartitionPayload) {
    Fail(what.c_str(), start,
         "header record has type " +
             Numbers(record.header.Type, " and length ", record.header.Length, ""));
  }
  BeginSection(item);
}

void SectionScanner::PassSectionHeader(SectionItem* item) {
  item->offset = m_position;
  item->length = kPartitionHeaderSize;
  m_position = std::min(m_position + kPartitionHeaderSize, m_fileLength);
  BeginSection(item);
}

void SectionScanner::BeginSection(SectionItem* item) {
  item->kind = SectionItem::Kind::Section;
  m_sectionStart = item->offset;
  const bool isKnown = m_nextSection < m_sectionCount;  // an index may have more
  m_ntfs = isKnown && m_systemIds[m_nextSection] == kSystemIdNtfs;
  item->section = m_nextSection++;
  m_inSection = true;
  m_ntfsFolders.Clear();
  m_folders.Clear();
}

void SectionScanner::ScanTrailer(SectionItem* item) {
  const uint64_t start = m_position;
  const Record record = TakeRecord("section trailer");
  if (record.header.Length != kPartitionPayload) {
    Fail("section trailer", start,
         "length is " + Numbers(record.header.Length, " bytes, not ", kPartitionPayload, ""));
  }
  if (!IsAllZero(m_window.At(m_position - kClosingBytes, kClosingBytes))) {
    Fail("section trailer", start, "its last 40 bytes are not zero");
  }
  item->kind = SectionItem::Kind::Trailer;
  item->section = m_nextSection - 1;
  m_inSection = false;
}

// A group is a chain of long-name records, last piece first, and a short entry.
void SectionScanner::ScanGroup(SectionItem* item) {
  item->section = m_nextSection - 1;
  EntryGroup group;
  for (auto taken = EntryGroup::Taken::Piece; taken == EntryGroup::Taken::Piece;) {
    const uint64_t at = m_position;
    const Record record = TakeRecord("directory record");
    if (record.header.Type != kRecordDirectory) {
      Fail("record", at,
           "type is " + std::to_string(record.header.Type) +
               " where a directory record is expected");
    }
    if (record.payload.size() != kDirEntrySize) {
      Fail("directory record", at,
           "payload is " + Numbers(record.header.Length, " bytes, not ", kDirEntrySize, ""));
    }
    taken = group.Take(record.payload.first<kDirEntrySize>());
    if (taken == EntryGroup::Taken::NoEntry) {
      Fail("directory record", at, "long name without an entry");
    }
    if (taken == EntryGroup::Taken::TooManyPieces) {
      Fail("directory record", at,
           "long name has more than " + std::to_string(kMaxLongNamePieces) + " pieces");
    }
  }
  ScanEntry(item, group);
}

void SectionScanner::ScanEntry(SectionItem* item, const EntryGroup& group) {
  constexpr SectionItem::Kind kKinds[] = {SectionItem::Kind::ZeroEntry, SectionItem::Kind::DotEntry,
                                          SectionItem::Kind::Directory, SectionItem::Kind::File};
  const EntryRole role = group.Role();
  item->kind = kKinds[static_cast<size_t>(role)];
  item->entry = group.Entry();
  if (group.IsListed()) {
    item->shortName = group.ShortName();
    item->name = group.Name();
    item->nameProblem = JudgeLongName(group);
    item->path = PathOf(item->Called());
  }
  m_folders.Pass(role, item->Called());
  if (role == EntryRole::File) ScanData(item);
}

// The data block records of a file, up to and including the one marked as its last.
void SectionScanner::ScanData(SectionItem* item) {
  item->dataOffset = m_position;
  if (item->entry.FileSize == 0) return;
  for (bool last = false; !last;) {
    const uint64_t at = m_position;
    if (at >= m_itemLimit) {
      Fail("data blocks", item->dataOffset,
           "no data block before " + Hex(m_itemLimit) + " is the last of '" + item->path + "'");
    }
    const Record record = TakeRecord("data block");
    if (record.header.Type != kRecordDataBlock) {
      Fail("record", at,
           "type is " + std::to_string(record.header.Type) + " before the last data block of '" +
               item->path + "'");
    }
    last = DataRecordOf(record.header, {}).IsLast();
  }
}

std::string SectionScanner::PathOf(const std::string& name) const {
  const bool isLong = m_folders.Path().size() + 1 + name.size() > kMaxScannedPath;
  return isLong ? std::string() : m_folders.PathOf(name);
}

_MiniHeader SectionScanner::PeekHeader(uint64_t offset, const char* what) {
  const auto bytes = m_window.At(offset, kMiniHeaderSize);
  if (bytes.size() < kMiniHeaderSize) {
    Fail(what, offset,
         "header is " + Numbers(kMiniHeaderSize, " bytes, ", bytes.size(), " remain"));
  }
  return DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
}

// Steps over one record.
SectionScanner::Record SectionScanner::TakeRecord(const char* what) {
  const uint64_t start = m_position;
  Record record{PeekHeader(start, what), {}};
  const uint64_t payload = start + kMiniHeaderSize;
  if (record.header.Length > m_fileLength - payload) {
    Fail(what, start,
         "payload is " +
             Numbers(record.header.Length, " bytes, ", m_fileLength - payload, " remain"));
  }
  if (record.header.Type == kRecordDirectory && record.header.Length == kDirEntrySize) {
    record.payload = m_window.At(payload, kDirEntrySize);
  }
  m_position = payload + record.header.Length;
  return record;
}

void SectionScanner::Fail(const char* what, uint64_t offset, const std::string& reason) const {
  throw Error(m_name, std::string(what) + " at " + Hex(offset) + ": " + reason, offset);
}

}  // namespace capsule::host
