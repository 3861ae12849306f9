#include "capsule/host/image_map.h"

#include "capsule/host/map/image_mapper.h"

namespace capsule::host {

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
  return MapImage(FileSource(path), path.string(), take);
}

MapSummary MapImage(const std::shared_ptr<const ByteSource>& source, const std::string& name,
                    const std::function<void(const MapItem&)>& take) {
  const ImageFile file(source, name);
  std::optional<Error> why;  // of such an image the map tells all but its folders
  return MapImage(file, OpenLeft(file, &why).get(), take);
}

}  // namespace capsule::host
