// MapImage tells what every byte of an image file is: the fields of the header, the records of the
// sections, those of the index, and the bytes that are none of these.
//
//   host::MapSummary summary = host::MapImage("photos.cap", [](const host::MapItem& item) {
//     Print(item.offset, item.length, item.text);
//   });
//
// Damaged and truncated files are mapped as far as possible. Where a record is not one, the map
// goes on at the next bytes that begin a directory record or end a section; what lies between is a
// gap. (Bytes of a file's content may look like such a record: behind damage the map may take them
// for one.) Items come in the order of their offsets, except that what lies over something that
// came before follows it.
//
// Files and folders are called as the tree of the opened image (Opening::Salvage) calls them. Where
// it cannot be opened, "N:/…/file" stands for a folder that is not known.
//
// Memory: that of the open image, and 10 bytes for each file and folder. Time is bounded by the
// size of the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "capsule/export.h"
#include "capsule/host/byte_source.h"
#include "capsule/host/map_item.h"

namespace capsule::host {

// Throws host::Error when the file cannot be read at all.
CAPSULE_API MapSummary MapImage(const std::filesystem::path& path,
                                const std::function<void(const MapItem&)>& take);

// Maps the bytes that `source` has in the same way; `name`: what errors call them.
CAPSULE_API MapSummary MapImage(const std::shared_ptr<const ByteSource>& source,
                                const std::string& name,
                                const std::function<void(const MapItem&)>& take);

}  // namespace capsule::host
