// 1. The lock is taken after the file is created, so between the two a cleaning run may take the
//    file for a leftover. Its maker then finds it locked or without its name, and makes another.
// 2. A cleaning run removes a name only while it holds the lock of the file that bears it.
#include "capsule/platform/temporary_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <string_view>

#include "capsule/platform/file.h"
#include "capsule/platform/host_files.h"
#include "capsule/platform/posix/descriptor.h"

namespace capsule::platform {
namespace {

constexpr std::string_view kMark = ".capsule-tmp-";
constexpr size_t kRandomLetters = 12;
constexpr size_t kMaxTargetPart = 200;  // of 255 bytes that a name may have
constexpr int kAttempts = 100;

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// What all temporary names for `target` begin with.
std::string NamePrefix(const std::string& target) {
  const std::string name = target.substr(target.rfind('/') + 1);
  return "." + name.substr(0, kMaxTargetPart) + std::string(kMark);
}

std::string RandomLetters() {
  std::random_device device;
  std::string letters;
  for (size_t i = 0; i < kRandomLetters; ++i) {
    letters += static_cast<char>('a' + device() % 26);
  }
  return letters;
}

bool Lock(int descriptor) {
  int result = -1;
  do {
    result = ::flock(descriptor, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

// Whether `path` names the open file.
bool IsNamed(int descriptor, const std::string& path) {
  struct stat open {};
  struct stat named {};
  return ::fstat(descriptor, &open) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

void RemoveIfLeftOver(const std::string& path) {
  const int descriptor = OpenDescriptor(path.c_str(), O_RDWR | O_NOFOLLOW, 0);
  if (descriptor < 0) return;
  struct stat status {};
  const bool regular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
  if (regular && Lock(descriptor) && IsNamed(descriptor, path)) ::unlink(path.c_str());
  ::close(descriptor);
}

void RemoveLeftOvers(const std::string& target) {
  const std::string folder = FolderOf(target);
  const std::string prefix = NamePrefix(target);
  const auto names = ListDirectory(folder);
  if (!names) return;
  for (const std::string& name : *names) {
    if (name.size() == prefix.size() + kRandomLetters &&
        name.compare(0, prefix.size(), prefix) == 0)
      RemoveIfLeftOver(folder + "/" + name);
  }
}

// What the process gives new files. The mask can only be read by setting it; a file that another
// thread creates meanwhile gets fewer permissions, never more.
mode_t ModeOfNewFiles() {
  const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
  ::umask(mask);
  return (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH) & ~mask;
}

mode_t ModeFor(const std::string& target) {
  struct stat status {};
  const bool exists = ::stat(target.c_str(), &status) == 0;
  return exists ? status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO) : ModeOfNewFiles();
}

bool SyncFolder(const std::string& folder) {
  const int descriptor = OpenDescriptor(folder.c_str(), O_RDONLY | O_DIRECTORY, 0);
  if (descriptor < 0) return false;
  // File systems that cannot sync folders say so by EINVAL.
  const bool synced = Sync(descriptor) || errno == EINVAL;
  const int reason = errno;
  ::close(descriptor);
  errno = reason;
  return synced;
}

}  // namespace

TemporaryFile::~TemporaryFile() { Remove(); }

bool TemporaryFile::Create(const std::string& target) {
  Remove();
  m_strTarget = target;
  RemoveLeftOvers(target);
  for (int i = 0; i < kAttempts; ++i) {
    if (CreateOnce()) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

// False with EEXIST when another name is to be tried.
bool TemporaryFile::CreateOnce() {
  const std::string path = FolderOf(m_strTarget) + "/" + NamePrefix(m_strTarget) + RandomLetters();
  const int descriptor =
      OpenDescriptor(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (descriptor < 0) return false;
  // Where files cannot be locked at all, nobody can take this one for a leftover either.
  const bool taken = !Lock(descriptor) && errno == EWOULDBLOCK;
  if (taken || !IsNamed(descriptor, path)) {
    ::close(descriptor);
    errno = EEXIST;
    return false;
  }
  m_nDescriptor = descriptor;
  m_strPath = path;
  return true;
}

const char* TemporaryFile::Publish() {
  if (::fchmod(m_nDescriptor, ModeFor(m_strTarget)) != 0) return "setting of permissions";
  if (!Sync(m_nDescriptor)) return "sync";
  if (::rename(m_strPath.c_str(), m_strTarget.c_str()) != 0) return "rename";
  Close(m_nDescriptor);
  m_nDescriptor = -1;
  return SyncFolder(FolderOf(m_strTarget)) ? nullptr : "sync of the folder";
}

void TemporaryFile::Remove() {
  if (m_nDescriptor < 0) return;
  ::unlink(m_strPath.c_str());
  Close(m_nDescriptor);
  m_nDescriptor = -1;
}

}  // namespace capsule::platform
