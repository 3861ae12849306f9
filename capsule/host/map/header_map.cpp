// The fields in front are at fixed places; those behind are placed by what the decoder of headers
// has found, so that map and decoder cannot differ. What the decoder could not place is one field
// with the reason as its problem.
#include "capsule/host/map/header_map.h"

#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

constexpr size_t kKeyOffset = kScrambleFlagOffset + 1;
constexpr size_t kKeySize = 36;
constexpr size_t kBehindKey = kKeyOffset + kKeySize;
constexpr size_t kBehindTailOffset = kTailOffsetOffset + 2;

std::string Text(std::span<const unsigned char> field) {
  return "\"" + std::string(field.begin(), std::find(field.begin(), field.end(), 0)) + "\"";
}

class HeaderMapper {
 public:
  HeaderMapper(const StoredHeader& header, size_t stored, MapSink& sink)
      : m_stored(stored), m_sink(sink), m_header(header), m_bytes(header.bytes) {}

  void Map() {
    MapFront();
    if (m_header.tail) {
      MapTail(*m_header.tail);
    } else {
      Field(kBehindTailOffset, kHeaderSize - kBehindTailOffset, "rest of the header",
            m_header.tailProblem);
    }
  }

 private:
  void MapFront() {
    const auto field = [&](size_t at, size_t size) { return std::span(m_bytes).subspan(at, size); };
    Field(0, kVersionSize, "version text " + Text(field(0, kVersionSize)));
    Field(kVersionSize, kScrambleFlagOffset - kVersionSize, "opaque");
    Field(kScrambleFlagOffset, 1,
          m_header.isScrambled ? "scrambled: fields below are restored"
                               : Value("scramble flag", m_bytes[kScrambleFlagOffset]),
          m_header.scrambleProblem);
    Field(kKeyOffset, kKeySize, "scramble key " + Text(field(kKeyOffset, kKeySize)));
    Field(kBehindKey, kIndexOffsetOffset - kBehindKey, "opaque");
    const uint32_t index = platform::LoadLe32(&m_bytes[kIndexOffsetOffset]);
    Field(kIndexOffsetOffset, 4, "index offset " + Hex(index), JudgeIndex(index));
    Field(kCompressionMarkOffset, 1, Value("compression mark", m_bytes[kCompressionMarkOffset]));
    Field(kConstant3Offset, 1, Value("constant", m_bytes[kConstant3Offset]));
    const bool compact = SelectLayout(m_header.Bytes()) == HeaderLayout::Compact;
    Field(kTailOffsetOffset, 2,
          Value("tail offset", platform::LoadLe16(&m_bytes[kTailOffsetOffset])) +
              (compact ? ": compact layout" : ": fixed layout"));
  }

  std::string JudgeIndex(uint32_t index) const {
    const IndexPlace place = PlaceOfIndex(index, m_sink.FileBytes());
    if (place == IndexPlace::None || place == IndexPlace::InFile) return {};
    return "index would begin at " + Hex(index) +
           (place == IndexPlace::InHeader
                ? ", inside the header"
                : "; the file has " + std::to_string(m_sink.FileBytes()) + " bytes");
  }

  void MapTail(const HeaderTail& tail) {
    const size_t area = tail.sectorArea;
    Opaque(kBehindTailOffset, area);
    Field(area, kSectorAreaSize, "sector area; " + Value("sections", tail.sectionCount),
          m_header.isMarked ? "" : "sector area does not begin with AB CD");
    const size_t count = tail.At(kPartitionCountOffset);
    const size_t flag = tail.At(kCompressionFlagOffset);
    Field(count - 1, 1, "opaque");
    Field(count, 1, Value("partition count", m_bytes[count]));
    Opaque(count + 1, flag);
    Field(flag, 1, Value("compression flag", m_bytes[flag]));
    Opaque(flag + 1, tail.records);
    const bool compact = tail.recordSize != kPartitionRecordSize;
    const size_t records = std::max(tail.recordCount, tail.sectionCount);
    const size_t slots = compact ? records : size_t{kMaxPartitions};
    for (size_t i = 0; i < slots; ++i) MapPartition(tail, i);
    Opaque(tail.records + slots * tail.recordSize, kHeaderSize);
  }

  void MapPartition(const HeaderTail& tail, size_t i) {
    const size_t at = tail.records + i * tail.recordSize;
    const auto bytes = std::span(m_bytes).subspan(at).first<kPartitionRecordSize>();
    const _Partition record = DecodePartition(bytes);
    const std::string number = "partition record " + std::to_string(i);
    Field(at, tail.recordSize,
          i < std::max(tail.recordCount, tail.sectionCount)
              ? number + ": system id " + std::to_string(record.SystemId) + ", " +
                    std::to_string(record.SectorCount) + " sectors"
              : number + ": not in use");
  }

  static std::string Value(const char* what, uint64_t value) {
    return std::string(what) + " " + std::to_string(value);
  }

  void Opaque(size_t begin, size_t end) {
    if (begin < end) Field(begin, end - begin, "opaque");
  }

  // Fields that the file ends in front of are left out; one that it ends in is a problem.
  void Field(size_t offset, size_t length, std::string text, std::string problem = {}) {
    if (offset >= m_stored) return;
    MapItem item;
    item.kind = MapItem::Kind::HeaderField;
    item.offset = offset;
    item.length = std::min(length, m_stored - offset);
    item.text = std::move(text);
    item.problem = std::move(problem);
    if (item.length < length) {
      item.problem = "header is cut short: " + std::to_string(m_stored) + " of " +
                     std::to_string(kHeaderSize) + " bytes";
    }
    m_sink.Add(item);
  }

  size_t m_stored;
  MapSink& m_sink;
  const StoredHeader& m_header;
  const std::vector<unsigned char>& m_bytes;
};

}  // namespace

void MapHeader(const StoredHeader& header, size_t stored, MapSink& sink) {
  HeaderMapper(header, stored, sink).Map();
}

}  // namespace capsule::host
