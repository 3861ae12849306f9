// The start mutex is held from before the thread is created until its stop event exists, and the
// thread passes through it before it signals: however quickly a body returns, there is an event.
#include "capsule/runtime/capsule_thread.h"

#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "capsule/platform/thread.h"

namespace capsule {
namespace {

// Above the process and thread ids of systems, and what a host may count its own events with.
std::atomic<uint32_t> g_lastThread = 2'000'000'000;

// The stop event of thread number `id`; null when there is no memory for it.
std::shared_ptr<CapsuleEvent> MakeStopEvent(uint32_t id) try {
  auto event = std::make_shared<CapsuleEvent>(std::to_string(id).c_str(), CapsuleEvent::AutoReset);
  return event->isValid() != 0 ? event : nullptr;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

// A recursive mutex that a subclass may also leave without having entered it, or leave locked.
class StartLock {
 public:
  void Enter() {
    std::unique_lock lock(m_Mutex);
    const auto self = std::this_thread::get_id();
    m_Free.wait(lock, [&] { return m_nDepth == 0 || m_Owner == self; });
    m_Owner = self;
    ++m_nDepth;
  }

  void Leave() {
    const std::lock_guard lock(m_Mutex);
    if (m_nDepth == 0 || m_Owner != std::this_thread::get_id()) return;
    if (--m_nDepth == 0) m_Free.notify_one();
  }

  // For a thread that ends: it may not have left what it entered.
  void LeaveForGood() {
    const std::lock_guard lock(m_Mutex);
    if (m_nDepth == 0 || m_Owner != std::this_thread::get_id()) return;
    m_nDepth = 0;
    m_Free.notify_one();
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Free;
  std::thread::id m_Owner;
  int m_nDepth = 0;
};

CapsuleThread::CapsuleThread() : m_pStartMutex(std::make_shared<StartLock>()) {}

CapsuleThread::CapsuleThread(const CapsuleThread& other)
    : m_nThreadId(other.m_nThreadId.load()),
      m_hThread(other.m_hThread.load()),
      m_bStarted(other.m_bStarted.load()),
      m_pStoppedEvent(other.StoppedEvent()),
      m_pStartMutex(other.m_pStartMutex) {}

CapsuleThread& CapsuleThread::operator=(const CapsuleThread& other) {
  if (this == &other) return *this;
  m_nThreadId = other.m_nThreadId.load();
  m_hThread = other.m_hThread.load();
  m_bStarted = other.m_bStarted.load();
  SetStoppedEvent(other.StoppedEvent());
  m_pStartMutex = other.m_pStartMutex;
  return *this;
}

CapsuleThread::~CapsuleThread() = default;

ThreadHandle CapsuleThread::startThread() {
  startProtect();
  const bool starts = !m_bRunning && StartCounted();
  startUnProtect();
  return starts ? m_hThread.load() : 0;
}

// The stop event is made before the thread, so that a failure to make it leaves no thread without.
bool CapsuleThread::StartCounted() {
  const uint32_t id = ++g_lastThread;
  m_bStarted = 1;
  m_bRunning = true;
  std::shared_ptr<CapsuleEvent> stopped = MakeStopEvent(id);
  if (stopped == nullptr || !platform::StartThread(&CapsuleThread::newThread, this)) {
    m_bStarted = 0;
    m_bRunning = false;
    return false;
  }
  m_nThreadId = id;
  m_hThread = id;
  SetStoppedEvent(std::move(stopped));
  return true;
}

std::shared_ptr<CapsuleEvent> CapsuleThread::StoppedEvent() const {
  const std::lock_guard lock(m_EventMutex);
  return m_pStoppedEvent;
}

void CapsuleThread::SetStoppedEvent(std::shared_ptr<CapsuleEvent> event) {
  const std::lock_guard lock(m_EventMutex);
  m_pStoppedEvent.swap(event);
}

void CapsuleThread::setThreadStopping() { m_bStarted = 0; }

int32_t CapsuleThread::isStarted() const { return m_bStarted; }

ThreadHandle CapsuleThread::handle() const { return m_hThread; }

uint32_t CapsuleThread::isThreadStopped(int32_t timeoutMs) {
  constexpr uint32_t kNotStopped = 0xFFFFFFFF;
  const std::shared_ptr<CapsuleEvent> stopped = StoppedEvent();
  return stopped == nullptr ? kNotStopped : stopped->waitAll(timeoutMs, CapsuleEvent::ReturnIndex);
}

void CapsuleThread::newThread(void* object) {
  auto* thread = static_cast<CapsuleThread*>(object);
  thread->threadBody();
  thread->m_pStartMutex->LeaveForGood();
  thread->setThreadStopped();
}

void CapsuleThread::doneThread(uint32_t exitCode) {
  startProtect();
  m_bRunning = false;
  m_pStartMutex->LeaveForGood();
  platform::ExitThread(exitCode);
}

// Whoever waits for the stop event may destroy the object as soon as it is signalled.
void CapsuleThread::setThreadStopped() {
  startProtect();
  const std::shared_ptr<CapsuleEvent> stopped = StoppedEvent();
  m_bRunning = false;
  startUnProtect();
  if (stopped != nullptr) stopped->setEvent();
}

void CapsuleThread::startProtect() { m_pStartMutex->Enter(); }

void CapsuleThread::startUnProtect() { m_pStartMutex->Leave(); }

}  // namespace capsule
