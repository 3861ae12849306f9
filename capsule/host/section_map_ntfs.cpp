#include <algorithm>
#include <vector>

#include "capsule/blocks/data_block_format.h"
#include "capsule/compression/lzs.h"
#include "capsule/host/reason.h"
#include "capsule/host/section_map.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr uint8_t kDosNamespace = 2;

std::string Count(uint64_t n) { return std::to_string(n); }

_MiniHeader Plain(const _NTFSMiniHeader& header) {
  return {static_cast<uint8_t>(header.RecordType), header.LastFlag, header.UncompressedLength,
          header.Length};
}

// The payload of a FILE record, which starts a history of its own; what is wrong with it.
std::string DecodePayload(std::span<const unsigned char> payload, uint32_t length,
                          std::vector<unsigned char>* out) {
  std::vector<unsigned char> history(LzsSizeOfDecompressionHistory());
  LzsInitDecompressionHistory(history.data());
  out->assign(length, 0);
  const unsigned char* source = payload.data();
  unsigned char* destination = out->data();
  auto sourceLeft = static_cast<uint32_t>(payload.size());
  uint32_t left = length;
  const uint16_t result =
      LzsDecompress(&source, &destination, &sourceLeft, &left, history.data(), LzsKeepHistory);
  if ((result & LzsUnitComplete) != 0 && left == 0) return {};
  return "FILE record does not decode to its " + Count(length) + " bytes";
}

// The name that users see first: a DOS name only when there is no other.
std::string NameIn(std::span<unsigned char, kFileRecordSize> record) {
  UndoFileRecordFixups(record);
  std::string name;
  VisitAttributes(record, [&](const NtfsAttribute& attribute) {
    NtfsFileName found;
    if (attribute.type != kFileNameType) return true;
    if (!DecodeFileName(attribute.NamedOffsetValue(), &found)) return true;
    if (name.empty() || found.nameSpace != kDosNamespace) name = LongNameToBytes(found.units);
    return true;
  });
  return name;
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
      return IsNtfsData(type) ? "data" : "further FILE record";
  }
}

}  // namespace

bool SectionMap::MapNtfsRecord() {
  if (!IsNtfsRecordAt(Here())) return false;
  const _NTFSMiniHeader header =
      DecodeNtfsHeader(m_Window.At(Here(), kNtfsHeaderSize).first<kNtfsHeaderSize>());
  const uint32_t type = header.RecordType;
  const _MiniHeader plain = Plain(header);
  MapItem item = ItemAt(MapItem::Kind::NtfsRecord, uint64_t{kNtfsHeaderSize} + header.Length);
  item.type = type;
  item.beginsEntry = BeginsNtfsEntry(type);
  item.text = "type " + Count(type) + ", " + KindOf(type) + ": " +
              Count(UncompressedLength(plain, m_bCompressed)) + " bytes, " +
              (IsCompressedPayload(plain, m_bCompressed) ? "compressed to " : "stored as ") +
              Count(header.Length) + (header.LastFlag == 1 ? ", the last" : "");
  if (type == kNtfsEnd) m_strFile.clear();
  if (IsNtfsFileRecord(type)) DescribeFileRecord(header, &item);
  item.path = m_strFile;
  m_Sink.Add(item);
  if (type != kNtfsEnd) return true;
  m_bEnded = true;
  const auto next = m_Window.At(Here(), kMiniHeaderSize);
  if (next.size() < kMiniHeaderSize || Here() >= m_nEnd) return true;
  const _MiniHeader trailer = DecodeMiniHeader(next.first<kMiniHeaderSize>());
  if (trailer.Type == kRecordPartition && trailer.Length == kPartitionPayload) MapTrailer();
  return true;
}

void SectionMap::DescribeFileRecord(const _NTFSMiniHeader& header, MapItem* item) {
  const _MiniHeader plain = Plain(header);
  const uint32_t length = UncompressedLength(plain, m_bCompressed);
  const auto payload = m_Window.At(item->offset + kNtfsHeaderSize, header.Length);
  std::vector<unsigned char> record(payload.begin(), payload.end());
  if (IsCompressedPayload(plain, m_bCompressed)) {
    const std::vector<unsigned char> compressed = std::move(record);
    item->problem = DecodePayload(compressed, length, &record);
  }
  const bool isBase = BeginsNtfsEntry(header.RecordType);
  if (isBase) m_strFile = Count(static_cast<uint64_t>(m_nSection)) + ":…/?";
  if (!item->problem.empty()) return;
  if (record.size() < kFileRecordSize) {
    item->problem = "FILE record of " + Count(record.size()) + " bytes, " + Count(kFileRecordSize) +
                    " are needed";
    return;
  }
  if (!isBase) return;
  const std::string name = NameIn(std::span(record).first<kFileRecordSize>());
  item->text += ", \"" + name + "\"";
  if (!name.empty()) m_strFile = Count(static_cast<uint64_t>(m_nSection)) + ":…/" + name;
}

bool SectionMap::IsNtfsRecordAt(uint64_t offset) {
  if (offset + kNtfsHeaderSize > m_nEnd) return false;
  const auto bytes = m_Window.At(offset, kNtfsHeaderSize);
  if (bytes.size() < kNtfsHeaderSize) return false;
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  const bool known = header.RecordType >= kNtfsDirectoryRecord && header.RecordType <= kNtfsEnd;
  return known && offset + kNtfsHeaderSize + header.Length <= m_nEnd;
}

// These headers have no mark of their own: a place counts when another record follows, or the end.
uint64_t SectionMap::FindNtfsRecord(uint64_t offset) {
  for (; offset + kNtfsHeaderSize <= m_nEnd; ++offset) {
    if (!IsNtfsRecordAt(offset)) continue;
    const _NTFSMiniHeader header =
        DecodeNtfsHeader(m_Window.At(offset, kNtfsHeaderSize).first<kNtfsHeaderSize>());
    const bool isEnd = header.RecordType == kNtfsEnd;
    if (isEnd || IsNtfsRecordAt(offset + kNtfsHeaderSize + header.Length)) return offset;
  }
  return m_nEnd;
}

}  // namespace capsule::host
