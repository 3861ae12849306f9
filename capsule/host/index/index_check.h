// Reads the index of an image as a whole and says what it covers, or what is wrong with it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/index/damage_note.h"
#include "capsule/host/records/file_check.h"

namespace capsule::host {

struct IndexContents {
  // Whether the index carries a check value, which then holds.
  bool isChecked = false;

  // Offsets in ascending order: records that stand for items, among them those that must be
  // entries of the tree (known of checked indexes only), and sections.
  std::vector<uint32_t> items;
  std::vector<uint32_t> entries;
  std::vector<uint32_t> sections;

  // Every record of types 2, 3 and 5 in the order of their offsets; of a checked index only when
  // asked for.
  std::vector<IndexRecord> records;

  // The check value of the header, where a checked index has one.
  std::optional<uint64_t> headerCheck;

  // What a checked index says about items, in the order of their offsets: the check values of
  // files, places where decoding may begin, and the hashes of paths (path_hash.h) where the index
  // has one.
  struct ItemPath {
    uint32_t offset = 0;
    uint64_t path = 0;
    uint64_t folder = 0;  // of the path up to its last '/'
    bool isFile = false;  // in FAT-style sections: it is of the type for files
  };
  std::vector<FileCheck> checks;
  std::vector<RestartPoint> restarts;
  std::vector<ItemPath> paths;

  // What a checked index says was damaged when it was made, in its own order.
  std::vector<DamageNote> damages;

  // Where the next item, section or the index begins behind `offset`.
  uint32_t LimitOf(uint32_t offset) const;

  // Items and sections and the index itself, ascending.
  std::vector<uint32_t> boundaries;
};

// `descriptor`: the image at `path`, `fileSize` bytes long. Throws host::Error when the index ends
// too early, its check value does not hold, or two of its records name the same item, unless it is
// read as nothing.
IndexContents CheckIndex(int descriptor, const std::string& path, uint64_t indexOffset,
                         uint64_t fileSize, bool keepRecords = false);

// Whether readers take the record at `offset` for nothing: a zero entry, or the end of NTFS
// records. Writers name one for all partitions that are not in use.
bool IsReadAsNothing(FileWindow& window, uint64_t offset);

}  // namespace capsule::host
