// MapItem is one field or record of an image file, and what its bytes say.
//
//   host::MapImage("photos.cap", [](const host::MapItem& item) {
//     Print(item.offset, host::MapKindName(item.kind));
//   });
#pragma once

#include <cstdint>
#include <string>

#include "capsule/export.h"

namespace capsule::host {

struct MapItem {
  enum class Kind {
    HeaderField,
    SectionHeader,
    LongName,    // one piece of a long name
    ShortEntry,  // of a file or folder, "." and ".." included
    ZeroEntry,   // closes a folder
    DataBlock,   // of a file
    NtfsRecord,  // any record of an NTFS section
    Trailer,     // the end of a section
    IndexStart,  // the bytes in front of the index records
    IndexRecord,
    Gap,      // bytes that belong to nothing
    Overlap,  // bytes that belong to two things
  };

  Kind kind = Kind::Gap;
  int section = -1;  // its number; -1 outside of sections
  uint64_t offset = 0;
  uint64_t length = 0;
  std::string path;     // of the file or folder that it belongs to, "N:/folder/file", if any
  std::string text;     // what it says, in one line
  std::string problem;  // what is wrong with it, in one line; empty when nothing is

  // Where its group of records, or its entry in an NTFS section, begins; an index names this place.
  bool beginsEntry = false;

  // ShortEntry: attributes and the file's size. NtfsRecord, IndexRecord: the record's type.
  // IndexStart: `type` is 1 when there is a check value, which `target` is then.
  uint32_t type = 0;
  uint8_t attributes = 0;
  uint32_t fileSize = 0;

  // IndexRecord: what it points to, and the name in it.
  uint64_t target = 0;
  uint64_t targetLength = 0;
  std::string name;
};

// The name of a kind, such as "header field" or "data block".
CAPSULE_API const char* MapKindName(MapItem::Kind kind);

struct MapSummary {
  uint64_t fileBytes = 0;
  uint64_t accountedBytes = 0;  // those that lie in something else than a gap
  uint64_t items = 0;
  uint64_t problems = 0;
  std::string headerProblem;  // why the header cannot be used; empty when it can be
  bool compressed = false;
  uint64_t indexOffset = 0;  // as the header states it, 0 without an index
  uint32_t sections = 0;     // found
};

}  // namespace capsule::host
