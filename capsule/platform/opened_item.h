// OpenedItem is a file or folder that a walk has opened and looked at, once, to be inserted.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "capsule/platform/host_files.h"

namespace capsule::platform {

struct OpenedItem {
  std::string path;     // as it is inserted: "0:\dir\file"
  int descriptor = -1;  // of a file, open for reading; borrowed
  FileStatus status;    // of what was opened
  FileStatus folder;    // of the folder that it lies in
  std::string alias;    // its 8.3 name

  // Instead of those that the status gives, except for that of a folder.
  std::optional<uint32_t> attributes{};

  // Of a file that is not one of the system, instead of a descriptor: fills `out` with the bytes
  // from `offset` on, or fails.
  std::function<bool(uint64_t offset, std::span<unsigned char> out)> read{};
};

}  // namespace capsule::platform
