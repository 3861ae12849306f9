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
  m_bTakesData = false;
  auto taken = m_Group.Take(bytes);
  if (taken == EntryGroup::Taken::TooManyPieces) {
    DropPieces("long name has more than " + Count(kMaxLongNamePieces) + " pieces");
    taken = m_Group.Take(bytes);
  }
  if (taken == EntryGroup::Taken::Piece) return MapLongName(header, bytes);
  if (taken == EntryGroup::Taken::NoEntry) DropPieces("long name without an entry");
  m_Group.Role() == EntryRole::Closing ? MapZeroEntry(header) : MapShortEntry(header);
  m_Folders.Pass(m_Group.Role(), NameOf(m_Group));
  m_Group.Clear();
}

void SectionMap::MapZeroEntry(const _MiniHeader& header) {
  MapItem item = ItemAt(MapItem::Kind::ZeroEntry, kDirRecordSize);
  item.beginsEntry = true;
  item.text = m_Folders.Depth() == 0
                  ? "closes nothing"
                  : "closes \"" + (HasLongPath() ? "…" : m_Folders.Path()) + "\"";
  item.problem = JudgeDirectoryHeader(header);
  m_strFile.clear();
  m_Sink.Add(item);
}

void SectionMap::MapLongName(const _MiniHeader& header, EntryGroup::Payload bytes) {
  MapItem item = ItemAt(MapItem::Kind::LongName, kDirRecordSize);
  item.offset += m_Pieces.size() * kDirRecordSize;
  item.beginsEntry = m_Pieces.empty();
  item.text = DescribePiece(bytes);
  item.problem = JudgeDirectoryHeader(header);
  m_Pieces.push_back(item);
}

void SectionMap::MapShortEntry(const _MiniHeader& header) {
  const _ShortDirEntry& entry = m_Group.Entry();
  const EntryRole role = m_Group.Role();
  m_strFile = PathOf(NameOf(m_Group));
  FinishPieces();
  MapItem item = ItemAt(MapItem::Kind::ShortEntry, kDirRecordSize);
  item.beginsEntry = !m_Group.HasLongName();
  item.path = m_strFile;
  item.text = DescribeEntry(entry);
  item.problem = JudgeDirectoryHeader(header);
  item.attributes = entry.Attribute;
  item.fileSize = role == EntryRole::File ? entry.FileSize : 0;
  m_bTakesData = role == EntryRole::File && entry.FileSize != 0;
  m_bLastSeen = false;
  m_nFileBytes = 0;
  m_Sink.Add(item);
}

// Judges the pieces of a long name, now that their entry is known, and passes them on.
void SectionMap::FinishPieces() {
  for (size_t i = 0; i < m_Pieces.size(); ++i) {
    m_Pieces[i].path = m_strFile;
    if (const auto fault = m_Group.FaultOf(i)) m_Pieces[i].problem = DescribeFault(*fault);
  }
  if (!m_Pieces.empty() && m_Pieces.front().problem.empty()) {
    m_Pieces.front().problem = m_Group.FaultOfFilling();
  }
  PassPieces();
}

// Passes the waiting pieces on; `problem`: what is wrong with the first.
void SectionMap::DropPieces(const std::string& problem) {
  if (!m_Pieces.empty()) m_Pieces.front().problem = problem;
  PassPieces();
  m_Group.Clear();
}

void SectionMap::PassPieces() {
  for (const MapItem& piece : m_Pieces) m_Sink.Add(piece);
  m_Pieces.clear();
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
  uint64_t at = FindRecordMark(m_Window, offset, m_nEnd);
  while (at < m_nEnd && !IsFatRecordAt(at)) at = FindRecordMark(m_Window, at + 1, m_nEnd);
  return at;
}

}  // namespace capsule::host
