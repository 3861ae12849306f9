// What the system tells of files and directories. Paths are those of the system.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capsule/platform/file.h"

namespace capsule::platform {

// A moment: seconds after 1970 UTC (negative before), and nanoseconds in that second.
struct Instant {
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  auto operator<=>(const Instant&) const = default;  // NOLINT(modernize-use-nullptr): no pointer
};

enum class FileKind { Regular, Directory, Other };

struct FileStatus {
  FileKind kind = FileKind::Other;
  FileIdentity identity;
  bool writable = false;  // some write permission is set, whoever it is for
  uint32_t mode = 0;      // the permission bits, 0 to 07777
  uint64_t links = 0;     // how many names the file has
  uint64_t size = 0;      // in bytes; 0 unless the file is regular
  Instant birth;          // the modification time where the file system keeps no birth time
  Instant access;
  Instant modification;
  Instant change;  // of contents or status; unlike the modification time nobody can set it
};

// Of an open file or folder; none on failure.
std::optional<FileStatus> StatusOf(int descriptor);

// What Stamp gives of a file with this status.
inline FileStamp StampOf(const FileStatus& status) {
  return {static_cast<int64_t>(status.size), status.modification.seconds,
          status.modification.nanoseconds};
}

// Of the item `name` of an open folder; of a link itself.
std::optional<FileStatus> StatusIn(int folder, const std::string& name);

// Follows links. None when nothing is found, with the reason in errno.
std::optional<FileStatus> Status(const std::string& path);

// Whether something of that name is there, a dangling link included.
bool Exists(const std::string& path);

// The names in a directory in no particular order, without "." and ".."; none when it cannot be
// read to its end.
std::optional<std::vector<std::string>> ListDirectory(const std::string& path);

// The same for an open one.
std::optional<std::vector<std::string>> ListDirectory(int folder);

struct ListedItem {
  std::string name;
  std::optional<FileKind> kind;  // where the listing tells it
};

// The same with what the items are.
std::optional<std::vector<ListedItem>> ListItems(int folder);

// The time now, by the clock that stamps files, which advances in ticks.
Instant ClockOfFiles();

}  // namespace capsule::platform
