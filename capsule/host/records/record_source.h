// Where a file's records lie, what an index states about them, and what messages call them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/image_file.h"

namespace capsule::host {

// The check value of a file: XXH3 of its record group and its data records as they are stored.
struct FileCheck {
  uint32_t offset = 0;  // where they begin in the image
  uint32_t length = 0;
  uint64_t value = 0;
};

// A place in a file where decoding may begin (restart_point.h).
struct RestartPoint {
  uint32_t record = 0;      // where the data block record begins in the image
  uint32_t fileOffset = 0;  // of its first byte in the file
  uint32_t history = 0;     // where what it may refer back to lies in the image
  uint16_t historyLength = 0;
};

struct RecordSource {
  ImageFile image;
  RecordRules rules;  // of its records
  uint64_t begin = 0;
  uint64_t limit = 0;
  uint64_t size = 0;
  bool goesOn = false;      // it is a part of a file, which goes on behind it with another record
  uint64_t fileRecord = 0;  // NTFS: where the file's FILE record lies
  std::optional<FileCheck> check = {};
  std::span<const RestartPoint> restarts = {};  // by record
  std::string entryPath;
};

}  // namespace capsule::host
