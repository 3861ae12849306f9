// Where a file's records lie, and what is said about them in messages.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "capsule/host/file/image_file.h"
#include "capsule/host/records/file_check.h"

namespace capsule::host {

struct RecordSource {
  ImageFile image;
  bool imageIsCompressed = false;
  uint64_t begin = 0;
  uint64_t limit = 0;
  uint64_t size = 0;
  bool goesOn = false;      // it is a part of a file, which goes on behind it with another record
  bool ntfs = false;        // records are those of an NTFS partition
  uint64_t fileRecord = 0;  // NTFS: where the file's FILE record lies
  std::optional<FileCheck> check = {};
  std::span<const RestartPoint> restarts = {};  // by record
  std::string entryPath;
};

}  // namespace capsule::host
