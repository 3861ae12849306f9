#include "capsule/host/image_map.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/map/header_map.h"
#include "capsule/host/map/index_map.h"
#include "capsule/host/map/map_image.h"
#include "capsule/host/map/map_sink.h"
#include "capsule/host/map/section_map.h"
#include "capsule/host/sections/uncounted_section.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::host {
namespace {

class ImageMapper {
 public:
  ImageMapper(int descriptor, const std::string& name, MapSink& sink)
      : m_nDescriptor(descriptor), m_strName(name), m_Window(descriptor, name), m_Sink(sink) {}

  void Map(bool mayHaveIndex) {
    const auto stored = m_Window.At(0, kHeaderSize);
    const StoredHeader header(stored);
    MapHeader(header, stored.size(), m_Sink);
    MapSummary& summary = m_Sink.Summary();
    summary.headerProblem = header.WhyNotAnImage();
    if (!summary.headerProblem.empty()) return MapRest();
    summary.compressed = header.decoded->compressed;
    summary.indexOffset = header.decoded->indexOffset;
    const bool hasIndex =
        mayHaveIndex && LooksLikeIndex(m_Window, summary.indexOffset, m_Sink.FileBytes());
    MapSections(*header.decoded, hasIndex ? summary.indexOffset : m_Sink.FileBytes());
    if (hasIndex) MapPlaceholder(summary.indexOffset);
    if (hasIndex) MapIndex(m_nDescriptor, m_Window, summary.indexOffset, m_Sink);
    MapEnd(hasIndex);
  }

 private:
  // Of a file whose header cannot be used: sections of FAT records are looked for all the same.
  void MapRest() {
    SectionMap sections(m_Window, m_Sink.FileBytes(), true, m_Sink);
    constexpr uint8_t kFat = 0x0B;
    for (int n = 0; sections.Map(n, kFat); ++n) ++m_Sink.Summary().sections;
    MapEnd(false);
  }

  void MapSections(const DecodedHeader& header, uint64_t end) {
    SectionMap sections(m_Window, end, header.compressed, m_Sink);
    int number = 0;
    for (const uint8_t systemId : SectionsOf(header)) {
      if (sections.Map(number++, systemId)) {
        ++m_Sink.Summary().sections;
        continue;
      }
      MapItem missing;
      missing.section = number - 1;
      missing.offset = m_Sink.Position();
      missing.problem = "section " + std::to_string(number - 1) + " is missing";
      m_Sink.Add(missing);
      return;
    }
  }

  // Between the sections and the index there may be a zero entry for partitions not in use.
  void MapPlaceholder(uint64_t indexOffset) {
    const auto zero = EncodeZeroEntry();
    const auto bytes = m_Window.At(m_Sink.Position(), zero.size());
    const bool fits = m_Sink.Position() + zero.size() <= indexOffset;
    if (!fits || !std::equal(zero.begin(), zero.end(), bytes.begin(), bytes.end())) return;
    MapItem item;
    item.kind = MapItem::Kind::ZeroEntry;
    item.offset = m_Sink.Position();
    item.length = zero.size();
    item.text = "stands for partitions not in use";
    m_Sink.Add(item);
  }

  // Without an index, what lies behind the last section is of an older, longer file, unless it is a
  // section that the header should count.
  void MapEnd(bool hasIndex) {
    const MapSummary& summary = m_Sink.Summary();
    const uint64_t left = m_Sink.FileBytes() - m_Sink.Position();
    const bool isOld = !hasIndex && summary.indexOffset == 0 && summary.headerProblem.empty();
    if (!isOld) return m_Sink.Gap(m_Sink.FileBytes(), "", "", NothingKnown(left));
    if (left == 0) return;
    const SectionScanner header(m_nDescriptor, m_strName);
    const auto uncounted =
        FindUncountedSection(m_nDescriptor, m_strName, header, m_Sink.Position());
    m_Sink.Gap(m_Sink.FileBytes(), "", "behind the last section",
               uncounted ? UncountedReason(header.SectionCount()) : "");
  }

  int m_nDescriptor;
  const std::string& m_strName;
  FileWindow m_Window;
  MapSink& m_Sink;
};

}  // namespace

const char* MapKindName(MapItem::Kind kind) {
  switch (kind) {
    case MapItem::Kind::HeaderField:
      return "header field";
    case MapItem::Kind::SectionHeader:
      return "section header";
    case MapItem::Kind::LongName:
      return "long name";
    case MapItem::Kind::ShortEntry:
      return "entry";
    case MapItem::Kind::ZeroEntry:
      return "zero entry";
    case MapItem::Kind::DataBlock:
      return "data block";
    case MapItem::Kind::NtfsRecord:
      return "ntfs record";
    case MapItem::Kind::Trailer:
      return "trailer";
    case MapItem::Kind::IndexStart:
      return "index start";
    case MapItem::Kind::IndexRecord:
      return "index record";
    case MapItem::Kind::Overlap:
      return "overlap";
    case MapItem::Kind::Gap:
      break;
  }
  return "gap";
}

MapSummary MapImage(const std::filesystem::path& path,
                    const std::function<void(const MapItem&)>& take) {
  const platform::ScopedDescriptor file(platform::OpenForReading(path.c_str()));
  if (!file) throw Error(path.string(), "cannot open: " + SystemReason(errno));
  return MapImage(file.Get(), path.string(), take);
}

MapSummary MapImage(int descriptor, const std::string& name,
                    const std::function<void(const MapItem&)>& take, bool hasIndex) {
  const int64_t length = platform::FileLength(descriptor);
  if (length < 0) throw Error(name, "cannot tell its length: " + SystemReason(errno));
  MapSink sink(static_cast<uint64_t>(length), take);
  try {
    ImageMapper(descriptor, name, sink).Map(hasIndex);
  } catch (int) {
    const int reason = errno;
    ThrowIfShort(name, "index cannot be read", reason);
    throw Error(name, "index cannot be read: " + SystemReason(reason));
  }
  return sink.Summary();
}

}  // namespace capsule::host
