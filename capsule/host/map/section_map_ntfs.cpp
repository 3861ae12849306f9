// FILE records are decoded for their names, each by itself. Where records of unknown types end is
// looked up once for a row of them and kept, so that a long row is not walked again for each.
#include <algorithm>
#include <vector>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/map/section_map.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/partition/ntfs_file.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

std::string Count(uint64_t n) { return std::to_string(n); }

// The name of an entry as the tree of the image has it.
std::string NameIn(std::span<unsigned char> records) {
  NtfsFile file;
  _ShortDirEntry entry{};
  file.TakeRecords(records, false, &entry);
  return Utf16ToUtf8(file.Name());
}

std::string KindOf(uint32_t type) {
  switch (type) {
    case kNtfsDirectoryRecord:
      return "FILE record of a folder";
    case kNtfsFileRecord:
      return "FILE record of a file";
    case kNtfsEnd:
      return "end of the records";
    default:
      if (!IsNtfsType(type)) return "not known";
      return IsNtfsData(type) ? "data" : "further FILE record";
  }
}

}  // namespace

bool SectionMap::MapNtfsRecord() {
  if (!IsNtfsRecordAt(Here()) && !IsOtherRecordHere()) return false;
  const _NTFSMiniHeader header =
      DecodeNtfsHeader(m_window.At(Here(), kNtfsHeaderSize).first<kNtfsHeaderSize>());
  const uint32_t type = header.RecordType;
  const _MiniHeader plain = ToMiniHeader(header);
  MapItem item = ItemAt(MapItem::Kind::NtfsRecord, uint64_t{kNtfsHeaderSize} + header.Length);
  item.type = type;
  item.beginsEntry = BeginsNtfsEntry(type);
  item.text = "type " + Count(type) + ", " + KindOf(type) + ": " +
              Count(UncompressedLength(plain, m_compressed)) + " bytes, " +
              (IsCompressedPayload(plain, m_compressed) ? "compressed to " : "stored as ") +
              Count(header.Length) + (header.LastFlag == 1 ? ", the last" : "");
  if (type == kNtfsEnd) m_file.clear();
  if (IsNtfsFileRecord(type)) DescribeFileRecord(header, &item);
  item.path = m_file;
  m_sink.Add(item);
  if (type != kNtfsEnd) return true;
  m_ended = true;
  const auto next = m_window.At(Here(), kMiniHeaderSize);
  if (next.size() < kMiniHeaderSize || Here() >= m_end) return true;
  const _MiniHeader trailer = DecodeMiniHeader(next.first<kMiniHeaderSize>());
  if (trailer.Type == kRecordPartition && trailer.Length == kPartitionPayload) MapTrailer();
  return true;
}

void SectionMap::DescribeFileRecord(const _NTFSMiniHeader& header, MapItem* item) {
  const auto payload = m_window.At(item->offset + kNtfsHeaderSize, header.Length);
  UnitDecoder decoder;
  std::vector<unsigned char> record;
  if (!DecodeNtfsPayload(header, payload, m_compressed, decoder, &record)) {
    item->problem = "FILE record does not decode to its " +
                    Count(UncompressedLength(ToMiniHeader(header), m_compressed)) + " bytes";
  }
  const bool isBase = BeginsNtfsEntry(header.RecordType);
  if (isBase) m_file = Count(static_cast<uint64_t>(m_section)) + ":…/?";
  if (!item->problem.empty()) return;
  if (record.size() < kFileRecordSize) {
    item->problem = "FILE record of " + Count(record.size()) + " bytes, " + Count(kFileRecordSize) +
                    " are needed";
    return;
  }
  if (!isBase) return;
  const std::string name = NameIn(record);
  item->text += ", \"" + name + "\"";
  if (!name.empty()) m_file = Count(static_cast<uint64_t>(m_section)) + ":…/" + name;
}

bool SectionMap::IsOtherRecordHere() {
  if (Here() < m_othersEnd) return true;
  UnitDecoder decoder;
  decoder.Pretend(0);
  m_othersEnd = EndOfOtherNtfsRecords(m_window, Here(), m_end, m_compressed, decoder);
  return Here() < m_othersEnd;
}

bool SectionMap::IsNtfsRecordAt(uint64_t offset) {
  return NtfsRecordAt(m_window, offset, m_end).has_value();
}

// These headers have no mark of their own: a place counts when another record follows, or the end.
uint64_t SectionMap::FindNtfsRecord(uint64_t offset) {
  for (; offset + kNtfsHeaderSize <= m_end; ++offset) {
    if (!IsNtfsRecordAt(offset)) continue;
    const _NTFSMiniHeader header =
        DecodeNtfsHeader(m_window.At(offset, kNtfsHeaderSize).first<kNtfsHeaderSize>());
    const bool isEnd = header.RecordType == kNtfsEnd;
    if (isEnd || IsNtfsRecordAt(offset + kNtfsHeaderSize + header.Length)) return offset;
  }
  return m_end;
}

}  // namespace capsule::host
