// Reads the index of an image as a whole and says what it covers, or what is wrong with it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/records/record_source.h"

namespace capsule::host {

struct IndexContents {
  // Whether the index carries a check value, which then holds.
  bool isChecked = false;

  // Offsets of records that stand for items, and of sections, in ascending order.
  std::vector<uint32_t> items;
  std::vector<uint32_t> sections;

  // The same in the order of its records, in which readers take them, where that is another. All
  // known writers name them in ascending order.
  std::vector<uint32_t> itemsAsNamed;
  std::vector<uint32_t> sectionsAsNamed;

  // Where the items end: where the index begins. 0 when it could not be read.
  uint32_t end = 0;

  // Every record of types 2, 3 and 5 in the order of their offsets; of a checked index only when
  // asked for.
  std::vector<IndexRecord> records;

  // The check value of the header, where a checked index has one.
  std::optional<uint64_t> headerCheck;

  // What a checked index says about items, in the order of their offsets: the check values of
  // files, places where decoding may begin, and which items must be entries of the tree, with the
  // hashes of their paths (path_hash.h).
  struct ItemPath {
    uint32_t offset = 0;
    bool isFile = false;   // in FAT-style sections: it is of the type for files
    bool isNamed = false;  // the index has a path
    uint64_t path = 0;
    uint64_t folder = 0;  // of the path up to its last '/'
  };
  std::vector<FileCheck> checks;
  std::vector<RestartPoint> restarts;
  std::vector<ItemPath> entries;

  // The labels that a checked index gives to sections, by their offsets.
  std::map<uint32_t, std::string> labels;

  // What a checked index says was damaged when it was made, in its own order.
  std::vector<DamageNote> damages;

  // Where the next item, section or the index begins behind `offset`.
  uint32_t LimitOf(uint32_t offset) const;
};

// The index that begins at `indexOffset` of the image. Throws host::Error when it ends too early,
// its check value does not hold, or two of its records name the same item, unless it is read as
// nothing.
IndexContents ReadIndex(const ImageFile& image, uint64_t indexOffset, bool keepRecords = false);

// Whether readers take the record at `offset` for nothing: a zero entry, or the end of NTFS
// records. Writers name one for all partitions that are not in use.
bool IsReadAsNothing(FileWindow& window, uint64_t offset);

}  // namespace capsule::host
