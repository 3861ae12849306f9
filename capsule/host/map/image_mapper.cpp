// The header leads to the sections, and these are mapped up to the index when there seems to be
// one. Whatever cannot be told in between is handed on as a gap, so every byte is in some item.
#include "capsule/host/map/image_mapper.h"

#include <algorithm>
#include <vector>

#include "capsule/host/map/header_map.h"
#include "capsule/host/map/index_map.h"
#include "capsule/host/map/map_sink.h"
#include "capsule/host/map/section_map.h"
#include "capsule/host/sections/uncounted_section.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

class ImageMapper {
 public:
  ImageMapper(const ImageFile& image, const Image* tree, MapSink& sink)
      : m_image(image),
        m_window(image),
        m_paths(tree != nullptr && tree->Partitions() > 0 ? &Catalog::Of(tree->Root(0)) : nullptr),
        m_sink(sink) {}

  void Map(bool mayHaveIndex) {
    const auto stored = m_window.At(0, kHeaderSize);
    const StoredHeader header(stored);
    MapHeader(header, stored.size(), m_sink);
    MapSummary& summary = m_sink.Summary();
    summary.headerProblem = header.WhyNotAnImage();
    if (!summary.headerProblem.empty()) return MapRest();
    summary.compressed = header.decoded->compressed;
    summary.indexOffset = header.decoded->indexOffset;
    const bool hasIndex =
        mayHaveIndex && LooksLikeIndex(m_window, summary.indexOffset, m_sink.FileBytes());
    MapSections(*header.decoded, hasIndex ? summary.indexOffset : m_sink.FileBytes());
    if (hasIndex) MapPlaceholder(summary.indexOffset);
    if (hasIndex) MapIndex(m_image, m_window, summary.indexOffset, m_sink);
    MapEnd(hasIndex);
  }

 private:
  // Maps what follows a header that cannot be used: sections of FAT records are looked for all the
  // same.
  void MapRest() {
    SectionMap sections(m_window, m_sink.FileBytes(), true, m_paths, m_sink);
    constexpr uint8_t kFat = 0x0B;
    for (int n = 0; sections.Map(n, kFat); ++n) ++m_sink.Summary().sections;
    MapEnd(false);
  }

  void MapSections(const DecodedHeader& header, uint64_t end) {
    SectionMap sections(m_window, end, header.compressed, m_paths, m_sink);
    int number = 0;
    for (const uint8_t systemId : SectionsOf(header)) {
      if (sections.Map(number++, systemId)) {
        ++m_sink.Summary().sections;
        continue;
      }
      MapItem missing;
      missing.section = number - 1;
      missing.offset = m_sink.Position();
      missing.problem = "section " + std::to_string(number - 1) + " is missing";
      m_sink.Add(missing);
      return;
    }
  }

  // Between the sections and the index there may be a zero entry for partitions not in use.
  void MapPlaceholder(uint64_t indexOffset) {
    const auto zero = EncodeZeroEntry();
    const auto bytes = m_window.At(m_sink.Position(), zero.size());
    const bool fits = m_sink.Position() + zero.size() <= indexOffset;
    if (!fits || !std::equal(zero.begin(), zero.end(), bytes.begin(), bytes.end())) return;
    MapItem item;
    item.kind = MapItem::Kind::ZeroEntry;
    item.offset = m_sink.Position();
    item.length = zero.size();
    item.text = "stands for partitions not in use";
    m_sink.Add(item);
  }

  // Without an index, what lies behind the last section is of an older, longer file, unless it is a
  // section that the header should count.
  void MapEnd(bool hasIndex) {
    const MapSummary& summary = m_sink.Summary();
    const uint64_t left = m_sink.FileBytes() - m_sink.Position();
    const bool isOld = !hasIndex && summary.indexOffset == 0 && summary.headerProblem.empty();
    if (!isOld) return m_sink.Gap(m_sink.FileBytes(), "", "", NothingKnown(left));
    if (left == 0) return;
    const SectionScanner header(m_image);
    const auto uncounted = FindUncountedSection(m_image, header, m_sink.Position());
    m_sink.Gap(m_sink.FileBytes(), "", "behind the last section",
               uncounted ? UncountedReason(header.SectionCount()) : "");
  }

  ImageFile m_image;
  FileWindow m_window;
  MapPaths m_paths;
  MapSink& m_sink;
};

}  // namespace

std::unique_ptr<Image> OpenLeft(const ImageFile& image, std::optional<Error>* why) {
  try {
    return std::make_unique<Image>(image.Source(), image.Name(), Opening::Salvage);
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    *why = error;
    return nullptr;
  }
}

MapSummary MapImage(const ImageFile& image, const Image* tree,
                    const std::function<void(const MapItem&)>& take, bool hasIndex) {
  MapSink sink(image.Size(), take);
  ImageMapper(image, tree, sink).Map(hasIndex);
  return sink.Summary();
}

}  // namespace capsule::host
