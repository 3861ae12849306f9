#include "capsule/platform/host_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

#include "capsule/platform/posix/descriptor.h"

namespace capsule::platform {
namespace {

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

Instant ToInstant(const struct statx_timestamp& stamp) { return {stamp.tv_sec, stamp.tv_nsec}; }

FileKind KindOf(mode_t mode) {
  if (S_ISDIR(mode)) return FileKind::Directory;
  return S_ISREG(mode) ? FileKind::Regular : FileKind::Other;
}

std::optional<FileStatus> StatusWith(int folder, const char* path, int flags) {
  struct statx found {};
  if (::statx(folder, path, flags, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) {
    return std::nullopt;
  }
  FileStatus status;
  status.kind = KindOf(found.stx_mode);
  status.identity = {makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino};
  status.writable = (found.stx_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0;
  status.mode = found.stx_mode & 07777;
  status.links = found.stx_nlink;
  status.size = status.kind == FileKind::Regular ? found.stx_size : 0;
  status.modification = ToInstant(found.stx_mtime);
  status.access = ToInstant(found.stx_atime);
  status.change = ToInstant(found.stx_ctime);
  const bool hasBirth = (found.stx_mask & STATX_BTIME) != 0;
  status.birth = hasBirth ? ToInstant(found.stx_btime) : status.modification;
  return status;
}

// What the system tells of an item in passing.
std::optional<FileKind> KindOf(const dirent& entry) {
  switch (entry.d_type) {
    case DT_REG:
      return FileKind::Regular;
    case DT_DIR:
      return FileKind::Directory;
    case DT_UNKNOWN:
      return std::nullopt;
    default:
      return FileKind::Other;
  }
}

// What is left in a directory.
std::optional<std::vector<ListedItem>> ItemsIn(const Directory& directory) {
  if (!directory) return std::nullopt;
  std::vector<ListedItem> items;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") items.push_back({std::string(name), KindOf(*entry)});
  }
  if (errno != 0) return std::nullopt;
  return items;
}

std::optional<std::vector<std::string>> NamesOf(std::optional<std::vector<ListedItem>> items) {
  if (!items) return std::nullopt;
  std::vector<std::string> names;
  for (ListedItem& item : *items) names.push_back(std::move(item.name));
  return names;
}

}  // namespace

std::optional<FileStatus> StatusOf(int descriptor) {
  return StatusWith(descriptor, "", AT_EMPTY_PATH);
}

std::optional<FileStatus> StatusIn(int folder, const std::string& name) {
  return StatusWith(folder, name.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::optional<FileStatus> Status(const std::string& path) {
  return StatusWith(AT_FDCWD, path.c_str(), 0);
}

bool Exists(const std::string& path) {
  struct stat found {};
  return ::lstat(path.c_str(), &found) == 0;
}

std::optional<std::vector<std::string>> ListDirectory(const std::string& path) {
  return NamesOf(ItemsIn(Directory(::opendir(path.c_str()))));
}

std::optional<std::vector<std::string>> ListDirectory(int folder) {
  return NamesOf(ListItems(folder));
}

std::optional<std::vector<ListedItem>> ListItems(int folder) {
  // The stream closes the descriptor it is given, and shares its position with copies of it.
  const int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy < 0) return std::nullopt;
  Directory directory(::fdopendir(copy));
  if (!directory) {
    CloseAndFail(copy, errno);
    return std::nullopt;
  }
  ::rewinddir(directory.get());
  return ItemsIn(directory);
}

Instant ClockOfFiles() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return {now.tv_sec, static_cast<uint32_t>(now.tv_nsec)};
}

}  // namespace capsule::platform
