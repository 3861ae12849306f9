// The handler takes no lock: within a scope it only notes the signal, and the last scope to end
// does the work. Outside of scopes nothing changes the list, so the handler may walk it.
#include "capsule/platform/posix/ending_list.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>

#include "capsule/platform/unfinished_file.h"

namespace capsule::platform {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

std::mutex g_Mutex;  // never taken by the handler
UnfinishedFile* g_pFirst = nullptr;
std::atomic<int> g_nScopes = 0;
std::atomic<int> g_nSignal = 0;  // that is to end the process

static_assert(std::atomic<int>::is_always_lock_free, "the handler uses them");

}  // namespace

EndingList::Scope::Scope() {
  ++g_nScopes;
  if (g_nSignal == 0) return;
  Leave();
  for (;;) ::pause();
}

EndingList::Scope::~Scope() { Leave(); }

void EndingList::Leave() {
  const int reason = errno;
  if (--g_nScopes == 0 && g_nSignal != 0) End(g_nSignal);
  errno = reason;
}

void EndingList::Add(UnfinishedFile& file) {
  const std::scoped_lock lock(g_Mutex);
  file.m_next = g_pFirst;
  if (g_pFirst != nullptr) g_pFirst->m_previous = &file;
  g_pFirst = &file;
}

void EndingList::Take(UnfinishedFile& file) {
  const std::scoped_lock lock(g_Mutex);
  (file.m_previous != nullptr ? file.m_previous->m_next : g_pFirst) = file.m_next;
  if (file.m_next != nullptr) file.m_next->m_previous = file.m_previous;
  file.m_previous = nullptr;
  file.m_next = nullptr;
}

void EndingList::OnSignal(int signal) {
  const int reason = errno;
  g_nSignal = signal;
  if (g_nScopes == 0) End(signal);
  errno = reason;
}

void EndingList::End(int signal) {
  for (const UnfinishedFile* file = g_pFirst; file != nullptr; file = file->m_next) {
    ::unlinkat(file->m_folderDescriptor, file->m_name.c_str(), 0);
  }
  sigset_t only;
  ::sigemptyset(&only);
  ::sigaddset(&only, signal);
  static_cast<void>(std::signal(signal, SIG_DFL));
  static_cast<void>(::raise(signal));
  // It waits until the handler, in which this may be, lets it through.
  ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
  ::_exit(128 + signal);
}

void RemoveUnfinishedFilesOnSignals() {
  struct sigaction handle {};
  handle.sa_handler = &EndingList::OnSignal;
  handle.sa_flags = SA_RESTART;
  ::sigemptyset(&handle.sa_mask);
  for (const int signal : kSignals) ::sigaddset(&handle.sa_mask, signal);
  for (const int signal : kSignals) {
    struct sigaction old {};
    if (::sigaction(signal, nullptr, &old) != 0 || old.sa_handler == SIG_IGN) continue;
    static_cast<void>(::sigaction(signal, &handle, nullptr));
  }
}

}  // namespace capsule::platform
