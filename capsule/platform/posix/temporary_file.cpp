// The file is locked and private while it is made. In the end it gets its permissions, is synced,
// renamed, and the folder synced, in this order, so that no incomplete file ever has the target's
// name.
#include "capsule/platform/temporary_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "capsule/platform/file.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/posix/descriptor.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::platform {
namespace {

constexpr size_t kMaxTargetPart = 200;  // of 255 bytes that a name may have
constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;

// What the process gives new files. The mask can only be read by setting it; a file that another
// thread creates meanwhile gets fewer permissions, never more.
mode_t ModeOfNewFiles() {
  const mode_t mask = ::umask(S_IRWXG | S_IRWXO);
  ::umask(mask);
  return (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH) & ~mask;
}

// The folder of a path, with "/" at its end.
std::string FolderOf(const std::string& target) {
  const size_t slash = target.rfind('/');
  return slash == std::string::npos ? "./" : target.substr(0, slash + 1);
}

}  // namespace

TemporaryFile::~TemporaryFile() { Remove(); }

bool TemporaryFile::Create(const std::string& target) {
  Remove();
  m_folder = FolderOf(target);
  m_name = target.substr(target.rfind('/') + 1);
  m_folderDescriptor = OpenFolderBehind(m_folder.c_str());
  if (m_folderDescriptor < 0) return false;
  RemoveLeftOvers(m_folderDescriptor);
  const std::string begin = "." + m_name.substr(0, kMaxTargetPart);
  if (m_file.Create(m_folderDescriptor, begin, S_IRUSR | S_IWUSR)) return true;
  const int reason = errno;
  Remove();
  errno = reason;
  return false;
}

bool TemporaryFile::SetMode() {
  struct stat status {};
  mode_t mode = 0;
  if (::fstatat(m_folderDescriptor, m_name.c_str(), &status, 0) == 0) {
    mode = status.st_mode & kPermissions;
  } else if (errno == ENOENT) {
    mode = ModeOfNewFiles();
  } else {
    return false;
  }
  return ::fchmod(m_file.Descriptor(), mode) == 0;
}

const char* TemporaryFile::Publish(int* syncProblem) {
  if (!SetMode()) return "setting of permissions";
  if (!Sync(m_file.Descriptor())) return "sync";
  if (!m_file.Publish(m_name.c_str(), false)) return "rename";
  // File systems that cannot sync folders say so by EINVAL.
  *syncProblem = Sync(m_folderDescriptor) || errno == EINVAL ? 0 : errno;
  Remove();
  return nullptr;
}

void TemporaryFile::Remove() {
  m_file.Remove();
  if (m_folderDescriptor > 0) Close(m_folderDescriptor);
  m_folderDescriptor = -1;
}

int OpenUnnamed(const std::string& target) {
  const std::string folder = FolderOf(target);
  const int descriptor = OpenDescriptor(folder.c_str(), O_RDWR | O_TMPFILE, S_IRUSR | S_IWUSR);
  const bool isUnknown = errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL;
  if (descriptor >= 0 || !isUnknown) return descriptor;
  // File systems without such files have ones that lose their name.
  const ScopedDescriptor parent(OpenFolderBehind(folder.c_str()));
  UnfinishedFile file;
  if (!parent || !file.Create(parent.Get(), "", S_IRUSR | S_IWUSR)) return -1;
  return ::fcntl(file.Descriptor(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace capsule::platform
