// Preloaded into a program, fails its calls to the system and its allocations in turn.
//
//   CAPSULE_FAULT="calls fail 12 28" LD_PRELOAD=... capsule create ...
//
// The words: "calls" or "allocations" are counted; "fail" one, fail all "from" one on, or a signal
// comes "after" one; the number of that one; the errno or signal. 0 only counts. With
// CAPSULE_FAULT_REPORT the program leaves the count, and the name of the call that was hit, in the
// file of that name. What the C library calls by itself, and what runs outside of main, is not
// counted.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Plan {
  bool countsCalls = false;
  bool countsAllocations = false;
  char action[16] = "fail";
  long target = 0;
  int value = 0;
};

Plan g_Plan;
std::atomic<long> g_nCount{0};
std::atomic<const char*> g_szHit{"none"};

void ReadPlan() {
  const char* text = getenv("CAPSULE_FAULT");
  char what[16] = "";
  if (text == nullptr) return;
  if (sscanf(text, "%15s %15s %ld %d", what, g_Plan.action, &g_Plan.target, &g_Plan.value) != 4) {
    abort();
  }
  g_Plan.countsCalls = strcmp(what, "calls") == 0;
  g_Plan.countsAllocations = !g_Plan.countsCalls;
}

void Report() {
  const char* path = getenv("CAPSULE_FAULT_REPORT");
  if (path == nullptr) return;
  char text[64];
  const int length = snprintf(text, sizeof text, "%ld %s\n", g_nCount.load(), g_szHit.load());
  const long file = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  syscall(SYS_write, file, text, length);
  syscall(SYS_close, file);
}

using Main = int(int, char**, char**);
Main* g_pMain = nullptr;

int CountedMain(int count, char** words, char** environment) {
  ReadPlan();
  const int result = g_pMain(count, words, environment);
  g_Plan = {};
  Report();
  return result;
}

bool Is(const char* action) { return strcmp(g_Plan.action, action) == 0; }

// Whether this call is to fail.
bool Fails(const char* name) {
  const long n = ++g_nCount;
  const bool isHit = g_Plan.target != 0 && (Is("from") ? n >= g_Plan.target : n == g_Plan.target);
  if (isHit) g_szHit = name;
  if (!isHit || Is("after")) return false;
  errno = g_Plan.value;
  return true;
}

// Behind a call: the signal that is to come there.
template <typename Result>
Result Behind(Result result) {
  const int reason = errno;
  if (g_Plan.target != 0 && g_nCount == g_Plan.target && Is("after")) raise(g_Plan.value);
  errno = reason;
  return result;
}

template <typename Function>
Function* Real(Function*, const char* name) {
  void* found = dlsym(RTLD_NEXT, name);
  Function* function = nullptr;
  memcpy(&function, &found, sizeof function);
  return function;
}

}  // namespace

// The label is the name that the program calls; the declaration of the C library stays apart.
#define SHIM(result, name, parameters, arguments, failure)                                        \
  extern "C" __attribute__((visibility("default"))) result Shim_##name parameters __asm__(#name); \
  result Shim_##name parameters {                                                                 \
    static auto* real = Real(&Shim_##name, #name);                                                \
    if (g_Plan.countsCalls && Fails(#name)) return failure;                                       \
    return g_Plan.countsCalls ? Behind(real arguments) : real arguments;                          \
  }

extern "C" __attribute__((visibility("default"))) int ShimStart(
    Main* main, int count, char** words, void (*begin)(), void (*end)(), void (*last)(),
    void* stack) __asm__("__libc_start_main");
int ShimStart(Main* main, int count, char** words, void (*begin)(), void (*end)(), void (*last)(),
              void* stack) {
  g_pMain = main;
  return Real(&ShimStart, "__libc_start_main")(&CountedMain, count, words, begin, end, last, stack);
}

SHIM(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1)
SHIM(int, openat, (int at, const char* path, int flags, mode_t mode), (at, path, flags, mode), -1)
SHIM(int, fcntl, (int file, int command, long value), (file, command, value), -1)
SHIM(int, close, (int file), (file), (real(file), errno = g_Plan.value, -1))
SHIM(ssize_t, pread, (int file, void* to, size_t n, off_t at), (file, to, n, at), -1)
SHIM(ssize_t, pwrite, (int file, const void* from, size_t n, off_t at), (file, from, n, at), -1)
SHIM(ssize_t, write, (int file, const void* from, size_t n), (file, from, n), -1)
SHIM(int, stat, (const char* path, struct stat* to), (path, to), -1)
SHIM(int, lstat, (const char* path, struct stat* to), (path, to), -1)
SHIM(int, fstat, (int file, struct stat* to), (file, to), -1)
SHIM(int, fstatat, (int at, const char* path, struct stat* to, int flags), (at, path, to, flags),
     -1)
SHIM(int, statx, (int at, const char* path, int flags, unsigned mask, struct statx* to),
     (at, path, flags, mask, to), -1)
SHIM(int, ftruncate, (int file, off_t length), (file, length), -1)
SHIM(int, posix_fallocate, (int file, off_t at, off_t n), (file, at, n), g_Plan.value)
SHIM(int, fsync, (int file), (file), -1)
SHIM(int, fchmod, (int file, mode_t mode), (file, mode), -1)
SHIM(int, futimens, (int file, const struct timespec* times), (file, times), -1)
SHIM(int, flock, (int file, int operation), (file, operation), -1)
SHIM(int, mkdirat, (int at, const char* path, mode_t mode), (at, path, mode), -1)
SHIM(int, rename, (const char* from, const char* to), (from, to), -1)
SHIM(int, renameat, (int from, const char* name, int to, const char* other),
     (from, name, to, other), -1)
SHIM(int, renameat2, (int from, const char* name, int to, const char* other, unsigned flags),
     (from, name, to, other, flags), -1)
SHIM(int, linkat, (int from, const char* name, int to, const char* other, int flags),
     (from, name, to, other, flags), -1)
SHIM(int, unlink, (const char* path), (path), -1)
SHIM(int, unlinkat, (int at, const char* path, int flags), (at, path, flags), -1)
SHIM(DIR*, opendir, (const char* path), (path), nullptr)
SHIM(DIR*, fdopendir, (int file), (file), nullptr)
SHIM(struct dirent*, readdir, (DIR * directory), (directory), nullptr)
SHIM(int, closedir, (DIR * directory), (directory), (real(directory), errno = g_Plan.value, -1))

// dlsym allocates, so this cannot ask it.
extern "C" void* __libc_malloc(size_t size);
extern "C" __attribute__((visibility("default"))) void* ShimMalloc(size_t size) __asm__("malloc");
void* ShimMalloc(size_t size) {
  if (g_Plan.countsAllocations && Fails("malloc")) return nullptr;
  return __libc_malloc(size);
}
