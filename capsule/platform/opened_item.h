// OpenedItem is a file or folder that a walk has opened and looked at, once, to be inserted.
#pragma once

#include <cstdint>
#include <optional>
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
};

}  // namespace capsule::platform
