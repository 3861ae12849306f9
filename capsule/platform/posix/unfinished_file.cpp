// 1. A lock of a file is taken after the file is created, so between the two a cleaning run may
// take
//    the file for a leftover. Its maker then finds it locked or without its name, and makes
//    another.
// 2. A cleaning run removes a name only while it holds the lock of the folder, if folders can be
//    locked, and that of the file that bears it. Who makes very many files locks their folder once,
//    and needs neither a lock nor a second look for each.
// 3. Closing tells whether all that was written has arrived. The lock of a file must outlive its
//    temporary name, so a copy of its descriptor is closed to ask; a file without a lock of its own
//    is just closed.
#include "capsule/platform/unfinished_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

#include "capsule/platform/file.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/host_files.h"
#include "capsule/platform/posix/descriptor.h"
#include "capsule/platform/posix/ending_list.h"

namespace capsule::platform {
namespace {

constexpr std::string_view kMark = ".capsule-tmp-";
constexpr size_t kRandomLetters = 12;
constexpr int kAttempts = 100;

uint64_t Seed() {
  uint64_t seed = 0;
  if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) == sizeof seed) return seed;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_nsec) << 32 ^ static_cast<uint64_t>(now.tv_sec);
}

std::atomic<uint64_t> g_nLetters = 0;  // what the next random letters are made from

bool SeedLetters() {
  g_nLetters = Seed();
  return true;
}

// Others in each call, and in each process, one that was split off later too.
std::string RandomLetters() {
  static const bool isSeeded =
      SeedLetters() && ::pthread_atfork(nullptr, nullptr, [] { SeedLetters(); }) == 0;
  static_cast<void>(isSeeded);
  uint64_t bits = g_nLetters++;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
  bits ^= bits >> 31;
  std::string letters;
  for (size_t i = 0; i < kRandomLetters; ++i, bits /= 26) {
    letters += static_cast<char>('a' + bits % 26);
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

// Whether closing the file would tell of a failure. It stays open, and locked.
bool HasArrived(int descriptor) {
  const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  return copy >= 0 && ::close(copy) == 0;
}

void RemoveIfLeftOver(int folder, const std::string& name) {
  const auto seen = StatusIn(folder, name);
  if (!seen || seen->kind != FileKind::Regular) return;
  int descriptor = OpenDescriptorIn(folder, name.c_str(), O_RDWR | O_NOFOLLOW, 0);
  if (descriptor < 0) descriptor = OpenDescriptorIn(folder, name.c_str(), O_RDONLY | O_NOFOLLOW, 0);
  if (descriptor < 0) return;
  if (Lock(descriptor)) {
    const auto open = StatusOf(descriptor);
    const auto named = StatusIn(folder, name);
    if (open && named && named->identity == open->identity) ::unlinkat(folder, name.c_str(), 0);
  }
  ::close(descriptor);
}

}  // namespace

UnfinishedFile::~UnfinishedFile() { Remove(); }

bool UnfinishedFile::Create(int folder, std::string_view begin, unsigned mode, Sign sign) {
  Remove();
  m_folderDescriptor = folder;
  m_sign = sign;
  for (int i = 0; i < kAttempts; ++i) {
    m_name = std::string(begin) + std::string(kMark) + RandomLetters();
    const EndingList::Scope scope;
    if (CreateOnce(mode)) {
      m_isThere = true;
      EndingList::Add(*this);
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

// False with EEXIST when another name is to be tried.
bool UnfinishedFile::CreateOnce(unsigned mode) {
  const int descriptor = OpenDescriptorIn(m_folderDescriptor, m_name.c_str(),
                                          O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
  if (descriptor < 0) return false;
  if (m_sign == Sign::FolderLock) {
    m_descriptor = descriptor;
    return true;
  }
  // Where files cannot be locked at all, nobody can take this one for a leftover either.
  const bool isTaken = !Lock(descriptor) && errno == EWOULDBLOCK;
  struct stat status {};
  if (isTaken) return CloseAndFail(descriptor, EEXIST) == 0;
  if (::fstat(descriptor, &status) != 0) {
    const int reason = errno;
    ::unlinkat(m_folderDescriptor, m_name.c_str(), 0);
    return CloseAndFail(descriptor, reason) == 0;
  }
  if (status.st_nlink == 0) return CloseAndFail(descriptor, EEXIST) == 0;
  m_descriptor = descriptor;
  return true;
}

bool UnfinishedFile::Publish(const char* name, bool keepExisting) {
  if (m_sign == Sign::FileLock) {
    if (!HasArrived(m_descriptor)) return false;
  } else if (m_descriptor >= 0) {
    if (platform::Close(std::exchange(m_descriptor, -1)) != 0) return false;
  }
  const EndingList::Scope scope;
  if (!PublishIn(m_folderDescriptor, m_name.c_str(), name, keepExisting)) return false;
  Forget();
  return true;
}

void UnfinishedFile::Remove() {
  if (!m_isThere) return;
  const EndingList::Scope scope;
  ::unlinkat(m_folderDescriptor, m_name.c_str(), 0);
  Forget();
}

void UnfinishedFile::Forget() {
  EndingList::Take(*this);
  if (m_descriptor >= 0) Close(std::exchange(m_descriptor, -1));
  m_isThere = false;
}

bool IsUnfinishedName(std::string_view name) {
  if (name.size() < kMark.size() + kRandomLetters || name.front() != '.') return false;
  const std::string_view end = name.substr(name.size() - kMark.size() - kRandomLetters);
  const std::string_view letters = end.substr(kMark.size());
  return end.starts_with(kMark) &&
         std::all_of(letters.begin(), letters.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

void RemoveLeftOvers(int folder) {
  const bool isLocked = Lock(folder);
  // Where folders cannot be locked, nobody has claimed one either.
  if (!isLocked && errno == EWOULDBLOCK) return;
  for (const std::string& name : ListDirectory(folder).value_or(std::vector<std::string>())) {
    if (IsUnfinishedName(name)) RemoveIfLeftOver(folder, name);
  }
  if (isLocked) ::flock(folder, LOCK_UN);
}

bool ClaimFolder(int folder) { return Lock(folder); }

}  // namespace capsule::platform
