// Pieces of a long name are held back until their short entry comes, since only then the path and
// the checksum that they need are known.
#include <algorithm>
#include <array>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/map/section_map.h"
#include "capsule/host/records/long_name_check.h"
#include "capsule/host/sections/section_resync.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/dos_time.h"

namespace capsule::host {
namespace {

std::string Count(uint64_t n) { return std::to_string(n); }

std::string JudgeDirectoryHeader(const _MiniHeader& header) {
  if (header.Flag != 1) return "flag is " + Count(header.Flag) + ", not 1";
  if (header.Param != 0) return "param is " + Count(header.Param) + ", not 0";
  return {};
}

std::string DescribePiece(EntryGroup::Payload bytes) {
  constexpr unsigned kLastPiece = 0x40;
  return "piece " + Count(bytes[0] & ~kLastPiece) +
         ((bytes[0] & kLastPiece) != 0 ? ", the last: \"" : ": \"") +
         LongNameToBytes(LongNameUnits(bytes)) + "\"";
}

std::string DescribeFault(const EntryGroup::PieceFault& fault) {
  if (fault.isChecksum) {
    return "checksum is " + Hex(fault.has) + ", that of the short name " + Hex(fault.needs);
  }
  return "ordinal is " + Hex(fault.has) + " where " + Hex(fault.needs) + " belongs";
}

std::string DescribeEntry(const _ShortDirEntry& entry) {
  const bool folder = RoleOf(entry) != EntryRole::File;
  std::string text = (folder ? "folder \"" : "file \"") + ShortNameToBytes(entry) + "\"";
  if (!folder) text += ", " + Count(entry.FileSize) + " bytes";
  return text + ", attributes " + Hex(entry.Attribute) + ", date " + Hex(entry.WriteDate) +
         ", time " + Hex(entry.WriteTime);
}

}  // namespace

// Maps one record; false when there is none at the position.
bool SectionMap::MapFatRecord() {
  const uint64_t at = Here() + m_pieces.size() * kDirRecordSize;
  if (!IsFatRecordAt(at)) return false;
  const _MiniHeader header =
      DecodeMiniHeader(m_window.At(at, kMiniHeaderSize).first<kMiniHeaderSize>());
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
  const uint64_t at = Here() + m_pieces.size() * kDirRecordSize;
  std::array<unsigned char, kDirEntrySize> bytes{};
  const auto stored = m_window.At(at + kMiniHeaderSize, kDirEntrySize);
  std::copy(stored.begin(), stored.end(), bytes.begin());
  m_takesData = false;
  auto taken = m_group.Take(bytes);
  if (taken == EntryGroup::Taken::TooManyPieces) {
    DropPieces("long name has more than " + Count(kMaxLongNamePieces) + " pieces");
    taken = m_group.Take(bytes);
  }
  if (taken == EntryGroup::Taken::Piece) return MapLongName(header, bytes);
  if (taken == EntryGroup::Taken::NoEntry) DropPieces("long name without an entry");
  m_group.Role() == EntryRole::Closing ? MapZeroEntry(header) : MapShortEntry(header);
  m_group.Clear();
}

void SectionMap::MapZeroEntry(const _MiniHeader& header) {
  MapItem item = ItemAt(MapItem::Kind::ZeroEntry, kDirRecordSize);
  item.beginsEntry = true;
  m_paths.GoTo(item.offset, item.offset);
  const std::string folder = m_paths.FolderPath();
  item.text = m_paths.IsAtTop() ? "closes nothing"
                                : "closes \"" + folder.substr(folder.find('/') + 1) + "\"";
  m_paths.Leave();
  item.problem = JudgeDirectoryHeader(header);
  m_file.clear();
  m_sink.Add(item);
}

void SectionMap::MapLongName(const _MiniHeader& header, EntryGroup::Payload bytes) {
  MapItem item = ItemAt(MapItem::Kind::LongName, kDirRecordSize);
  item.offset += m_pieces.size() * kDirRecordSize;
  item.beginsEntry = m_pieces.empty();
  item.text = DescribePiece(bytes);
  item.problem = JudgeDirectoryHeader(header);
  m_pieces.push_back(item);
}

void SectionMap::MapShortEntry(const _MiniHeader& header) {
  const _ShortDirEntry& entry = m_group.Entry();
  const EntryRole role = m_group.Role();
  const uint64_t end = Here() + (m_pieces.size() + 1) * kDirRecordSize;
  const auto known = m_paths.GoTo(Here(), end - 1);
  m_file = m_paths.PathOf(known, NameOf(m_group));
  FinishPieces();
  MapItem item = ItemAt(MapItem::Kind::ShortEntry, kDirRecordSize);
  item.beginsEntry = !m_group.HasLongName();
  item.path = m_file;
  item.text = DescribeEntry(entry);
  item.problem = JudgeDirectoryHeader(header);
  item.attributes = entry.Attribute;
  item.fileSize = role == EntryRole::File ? entry.FileSize : 0;
  m_takesData = role == EntryRole::File && entry.FileSize != 0;
  m_lastSeen = false;
  m_fileBytes = 0;
  m_sink.Add(item);
}

// Judges the pieces of a long name, now that their entry is known, and passes them on.
void SectionMap::FinishPieces() {
  for (size_t i = 0; i < m_pieces.size(); ++i) {
    m_pieces[i].path = m_file;
    if (const auto fault = m_group.FaultOf(i)) m_pieces[i].problem = DescribeFault(*fault);
  }
  if (!m_pieces.empty() && m_pieces.front().problem.empty()) {
    m_pieces.front().problem = m_group.FaultOfFilling();
  }
  PassPieces();
}

// Passes the waiting pieces on; `problem`: what is wrong with the first.
void SectionMap::DropPieces(const std::string& problem) {
  if (!m_pieces.empty()) m_pieces.front().problem = problem;
  PassPieces();
  m_group.Clear();
}

void SectionMap::PassPieces() {
  for (const MapItem& piece : m_pieces) m_sink.Add(piece);
  m_pieces.clear();
}

void SectionMap::MapData(const _MiniHeader& header) {
  MapItem item = ItemAt(MapItem::Kind::DataBlock, kMiniHeaderSize + header.Length);
  const uint64_t end = item.offset + item.length;
  const DataRecord record = DataRecordOf(header, {RecordKind::Fat, m_compressed});
  item.path = m_file;
  item.text = "bytes " + Count(m_fileBytes) + " to " + Count(m_fileBytes + record.chunk) + ", " +
              (record.isCompressed ? "compressed to " : "stored as ") + Count(header.Length) +
              (record.IsLast() ? ", the last" : "");
  item.problem = JudgeDataRecord(record);
  if (!m_takesData) item.problem = "data block belongs to no file";
  if (m_takesData && m_lastSeen) item.problem = "data block behind the last one of its file";
  m_lastSeen = m_lastSeen || record.IsLast();
  m_fileBytes += record.chunk;
  if (!IsFatRecordAt(end)) {
    const uint64_t found = FindFatRecord(item.offset + kMiniHeaderSize);
    if (found < end) {
      item.length = found - item.offset;
      item.problem = "payload is " + Count(header.Length) + " bytes, but a record begins at " +
                     Hex(found) + " and none at " + Hex(end);
    }
  }
  m_sink.Add(item);
}

bool SectionMap::IsFatRecordAt(uint64_t offset) {
  if (offset >= m_end) return false;
  const auto bytes = m_window.At(offset, kMiniHeaderSize);
  if (bytes.size() < kMiniHeaderSize) return false;
  const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
  const bool fits = offset + kMiniHeaderSize + header.Length <= m_end;
  if (header.Type == kRecordDirectory) return header.Length == kDirEntrySize && fits;
  if (header.Type == kRecordPartition) return header.Length == kPartitionPayload;
  return header.Type == kRecordDataBlock && fits;
}

// The first place from `offset` on where a directory record or a trailer begins.
uint64_t SectionMap::FindFatRecord(uint64_t offset) {
  uint64_t at = FindRecordMark(m_window, offset, m_end);
  while (at < m_end && !IsFatRecordAt(at)) at = FindRecordMark(m_window, at + 1, m_end);
  return at;
}

}  // namespace capsule::host
