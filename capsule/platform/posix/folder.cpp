// Everything but a target itself is reached from the descriptor of its folder and without following
// links, so what becomes of a path meanwhile leads nowhere else.
#include "capsule/platform/folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "capsule/platform/posix/descriptor.h"

namespace capsule::platform {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY;
constexpr mode_t kWriteBits = 0222;

// Where the file system cannot rename without replacing, a second name is as good.
bool LinkToName(int folder, const char* temporary, const char* name) {
  if (linkat(folder, temporary, folder, name, 0) != 0) return false;
  return unlinkat(folder, temporary, 0) == 0;
}

}  // namespace

int OpenFolder(const char* path) { return OpenDescriptor(path, kFolderFlags | O_NOFOLLOW, 0); }

int OpenFolderBehind(const char* path) { return OpenDescriptor(path, kFolderFlags, 0); }

int OpenFolderIn(int folder, const char* name) {
  return OpenDescriptorIn(folder, name, kFolderFlags | O_NOFOLLOW, 0);
}

int OpenFileIn(int folder, const char* name) {
  return OpenDescriptorIn(folder, name, O_RDONLY | O_NOFOLLOW, 0);
}

bool MakeFolderIn(int folder, const char* name) { return mkdirat(folder, name, 0777) == 0; }

bool MakeReadOnly(int folder) {
  struct stat status {};
  if (fstat(folder, &status) != 0) return false;
  return fchmod(folder, status.st_mode & 07777 & ~kWriteBits) == 0;
}

Presence LookIn(int folder, const char* name) {
  struct stat status {};
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Presence::Nothing : Presence::Unknown;
  }
  if (S_ISDIR(status.st_mode)) return Presence::Folder;
  return S_ISREG(status.st_mode) ? Presence::File : Presence::Other;
}

bool PublishIn(int folder, const char* temporary, const char* name, bool keepExisting) {
  if (!keepExisting) return renameat(folder, temporary, folder, name) == 0;
  if (renameat2(folder, temporary, folder, name, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  return LinkToName(folder, temporary, name);
}

bool SetTimes(int descriptor, int64_t seconds) {
  const timespec both[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
  return futimens(descriptor, both) == 0;
}

}  // namespace capsule::platform
