#include <algorithm>
#include <array>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/map/section_map.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/dos_time.h"

namespace capsule::host {
namespace {

constexpr uint8_t kLastPiece = 0x40;
constexpr std::array<unsigned char, 8> kEntryHeader{kRecordDirectory, 1, 0, 0, 0, 0,
                                                    kDirEntrySize,    0};
constexpr std::array<unsigned char, 8> kAreaHeader{kRecordPartition, 0, 0, 0, 0, 0, 0, 6};

std::string Count(uint64_t n) { return std::to_string(n); }

std::string JudgeDirectoryHeader(const _MiniHeader& header) {
  if (header.Flag != 1) return "flag is " + Count(header.Flag) + ", not 1";
  if (header.Param != 0) return "param is " + Count(header.Param) + ", not 0";
  return {};
}

bool IsDotName(const std::string& name) { return name == "." || name == ".."; }

std::string DescribeEntry(const _ShortDirEntry& entry) {
  const bool folder = (entry.Attribute & kDirectoryAttribute) != 0;
  std::string text = (folder ? "folder \"" : "file \"") + ShortNameToBytes(entry) + "\"";
  if (!folder) text += ", " + Count(entry.FileSize) + " bytes";
  return text + ", attributes " + Hex(entry.Attribute) + ", date " + Hex(entry.WriteDate) +
         ", time " + Hex(entry.WriteTime);
}

}  // namespace

// One record, or false when there is none at the position.
bool SectionMap::MapFatRecord() {
  const uint64_t at = Here() + m_Pieces.size() * kDirRecordSize;
  if (!IsFatRecordAt(at)) return false;
  const _MiniHeader header =
      DecodeMiniHeader(m_Window.At(at, kMiniHeaderSize).first<kMiniHeaderSize>());
  if (header.Type == kRecordDirectory) {
    MapDirectoryRecord(header);
    return true;
  }
  DropPieces("long name without an entry");
  if (header.Type == kRecordPartition) {
    MapTrailer();
  } else {
    MapData(header);
  }
  return true;
}

void SectionMap::MapDirectoryRecord(const _MiniHeader& header) {
  const uint64_t at = Here() + m_Pieces.size() * kDirRecordSize;
  std::array<unsigned char, kDirEntrySize> bytes{};
  const auto stored = m_Window.At(at + kMiniHeaderSize, kDirEntrySize);
  std::copy(stored.begin(), stored.end(), bytes.begin());
  const bool isEmpty = bytes[0] == 0;
  m_bTakesData = false;
  if (bytes[offsetof(_LongDirEntry, Attribute)] == kLongNameAttribute &&
      !(isEmpty && m_Pieces.empty())) {
    MapLongName(header, bytes);
  } else if (isEmpty) {
    DropPieces("long name without an entry");
    MapItem item = ItemAt(MapItem::Kind::ZeroEntry, kDirRecordSize);
    item.beginsEntry = true;
    item.text = m_Folders.Depth() == 0
                    ? "closes nothing"
                    : "closes \"" + (HasLongPath() ? "…" : m_Folders.Path()) + "\"";
    item.problem = JudgeDirectoryHeader(header);
    m_Folders.Leave();
    m_strFile.clear();
    m_Sink.Add(item);
  } else {
    MapShortEntry(header, bytes);
  }
}

void SectionMap::MapLongName(const _MiniHeader& header, std::span<const unsigned char, 32> bytes) {
  if (m_Pieces.size() == static_cast<size_t>(kMaxLongNamePieces)) {
    DropPieces("long name has more than " + Count(kMaxLongNamePieces) + " pieces");
  }
  MapItem item = ItemAt(MapItem::Kind::LongName, kDirRecordSize);
  item.offset += m_Pieces.size() * kDirRecordSize;
  item.beginsEntry = m_Pieces.empty();
  const auto units = LongNameUnits(bytes);
  item.text = "piece " + Count(bytes[0] & ~unsigned{kLastPiece}) +
              ((bytes[0] & kLastPiece) != 0 ? ", the last: \"" : ": \"") +
              LongNameToBytes(DecodeLongName(units)) + "\"";
  item.problem = JudgeDirectoryHeader(header);
  m_Pieces.push_back(item);
  m_PieceUnits.insert(m_PieceUnits.end(), units.begin(), units.end());
  m_PieceChecks.push_back(bytes[0]);
  m_PieceChecks.push_back(bytes[offsetof(_LongDirEntry, Checksum)]);
}

void SectionMap::MapShortEntry(const _MiniHeader& header,
                               std::span<const unsigned char, 32> bytes) {
  const _ShortDirEntry entry = DecodeShortEntry(bytes);
  const bool isFolder = (entry.Attribute & kDirectoryAttribute) != 0;
  const bool isDot = isFolder && m_Pieces.empty() && IsDotName(ShortNameToBytes(entry));
  const std::string longName = LongNameToBytes(DecodeLongName(m_PieceUnits));
  const std::string name = longName.empty() ? ShortNameToBytes(entry) : longName;
  m_strFile = PathOf(name);
  const bool alone = m_Pieces.empty();
  FinishPieces(bytes);
  MapItem item = ItemAt(MapItem::Kind::ShortEntry, kDirRecordSize);
  item.beginsEntry = alone;
  item.path = m_strFile;
  item.text = DescribeEntry(entry);
  item.problem = JudgeDirectoryHeader(header);
  item.attributes = entry.Attribute;
  item.fileSize = isFolder ? 0 : entry.FileSize;
  if (isFolder && !isDot) m_Folders.Enter(name);
  m_bTakesData = !isFolder && entry.FileSize != 0;
  m_bLastSeen = false;
  m_nFileBytes = 0;
  m_Sink.Add(item);
}

// The pieces of a name in front of their entry: in order, and made for it.
void SectionMap::FinishPieces(std::span<const unsigned char, 32> shortEntry) {
  const uint8_t checksum = ShortNameChecksum(shortEntry.first<11>());
  const size_t count = m_Pieces.size();
  for (size_t i = 0; i < count; ++i) {
    MapItem& piece = m_Pieces[i];
    const size_t ordinal = (count - i) | (i == 0 ? kLastPiece : 0);
    piece.path = m_strFile;
    if (m_PieceChecks[2 * i] != ordinal) {
      piece.problem =
          "ordinal is " + Hex(m_PieceChecks[2 * i]) + " where " + Hex(ordinal) + " belongs";
    } else if (m_PieceChecks[2 * i + 1] != checksum) {
      piece.problem = "checksum is " + Hex(m_PieceChecks[2 * i + 1]) + ", that of the short name " +
                      Hex(checksum);
    }
  }
  const std::string filling = JudgeFilling(m_PieceUnits);
  if (count > 0 && m_Pieces.front().problem.empty()) m_Pieces.front().problem = filling;
  DropPieces("");
}

// Passes the waiting pieces on; `problem`: what is wrong with the first.
void SectionMap::DropPieces(const std::string& problem) {
  for (MapItem& piece : m_Pieces) {
    if (&piece == &m_Pieces.front() && !problem.empty()) piece.problem = problem;
    m_Sink.Add(piece);
  }
  m_Pieces.clear();
  m_PieceUnits.clear();
  m_PieceChecks.clear();
}

void SectionMap::MapData(const _MiniHeader& header) {
  MapItem item = ItemAt(MapItem::Kind::DataBlock, kMiniHeaderSize + header.Length);
  const uint64_t end = item.offset + item.length;
  const DataRecord record = DataRecordOf(header, {RecordKind::Fat, m_bCompressed});
  item.path = m_strFile;
  item.text = "bytes " + Count(m_nFileBytes) + " to " + Count(m_nFileBytes + record.chunk) + ", " +
              (record.isCompressed ? "compressed to " : "stored as ") + Count(header.Length) +
              (record.IsLast() ? ", the last" : "");
  item.problem = JudgeDataRecord(record);
  if (!m_bTakesData) item.problem = "data block belongs to no file";
  if (m_bTakesData && m_bLastSeen) item.problem = "data block behind the last one of its file";
  m_bLastSeen = m_bLastSeen || record.IsLast();
  m_nFileBytes += record.chunk;
  if (!IsFatRecordAt(end)) {
    const uint64_t found = FindFatRecord(item.offset + kMiniHeaderSize);
    if (found < end) {
      item.length = found - item.offset;
      item.problem = "payload is " + Count(header.Length) + " bytes, but a record begins at " +
                     Hex(found) + " and none at " + Hex(end);
    }
  }
  m_Sink.Add(item);
}

bool SectionMap::IsFatRecordAt(uint64_t offset) {
  if (offset >= m_nEnd) return false;
  const auto bytes = m_Window.At(offset, kMiniHeaderSize);
  if (bytes.size() < kMiniHeaderSize) return false;
  const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
  const bool fits = offset + kMiniHeaderSize + header.Length <= m_nEnd;
  if (header.Type == kRecordDirectory) return header.Length == kDirEntrySize && fits;
  if (header.Type == kRecordPartition) return header.Length == kPartitionPayload;
  return header.Type == kRecordDataBlock && fits;
}

// The first place from `offset` on where a directory record or a trailer begins.
uint64_t SectionMap::FindFatRecord(uint64_t offset) {
  while (offset < m_nEnd) {
    const auto bytes = m_Window.At(offset, FileWindow::kSize / 2);
    if (bytes.size() < kEntryHeader.size()) break;
    const auto entry =
        std::search(bytes.begin(), bytes.end(), kEntryHeader.begin(), kEntryHeader.end());
    const auto area = std::search(bytes.begin(), entry, kAreaHeader.begin(), kAreaHeader.end());
    const auto found = area != entry ? area : entry;
    const uint64_t at = offset + static_cast<uint64_t>(found - bytes.begin());
    if (found != bytes.end() && IsFatRecordAt(at)) return at;
    offset += bytes.size() - (kEntryHeader.size() - 1);
  }
  return m_nEnd;
}

}  // namespace capsule::host
