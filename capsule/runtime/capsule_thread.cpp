// The start mutex is held from before the thread is created until its stop event exists, and the
// thread passes through it before it signals: however quickly a body returns, there is an event.
#include "capsule/runtime/capsule_thread.h"

#include <string>

#include "capsule/platform/thread.h"

namespace capsule {
namespace {

std::atomic<uint32_t> g_lastThread = 0;

}  // namespace

CapsuleThread::CapsuleThread() : m_pStartMutex(std::make_shared<std::mutex>()) {}

CapsuleThread::CapsuleThread(const CapsuleThread& other)
    : m_nThreadId(other.m_nThreadId),
      m_hThread(other.m_hThread),
      m_bStarted(other.m_bStarted.load()),
      m_pStoppedEvent(other.m_pStoppedEvent),
      m_pStartMutex(other.m_pStartMutex) {}

CapsuleThread& CapsuleThread::operator=(const CapsuleThread& other) {
  if (this == &other) return *this;
  m_nThreadId = other.m_nThreadId;
  m_hThread = other.m_hThread;
  m_bStarted = other.m_bStarted.load();
  m_pStoppedEvent = other.m_pStoppedEvent;
  m_pStartMutex = other.m_pStartMutex;
  return *this;
}

CapsuleThread::~CapsuleThread() = default;

ThreadHandle CapsuleThread::startThread() {
  m_bStarted = 1;
  startProtect();
  const uint32_t id = ++g_lastThread;
  // Made before the thread, so that a failure to make it leaves no thread without one.
  m_pStoppedEvent =
      std::make_shared<CapsuleEvent>(std::to_string(id).c_str(), CapsuleEvent::AutoReset);
  const bool running = platform::StartThread(&CapsuleThread::newThread, this);
  if (running) {
    m_nThreadId = id;
    m_hThread = id;
  } else {
    m_pStoppedEvent.reset();
    m_bStarted = 0;
  }
  startUnProtect();
  return running ? m_hThread : 0;
}

void CapsuleThread::setThreadStopping() { m_bStarted = 0; }

int32_t CapsuleThread::isStarted() const { return m_bStarted; }

ThreadHandle CapsuleThread::handle() const { return m_hThread; }

uint32_t CapsuleThread::isThreadStopped(int32_t timeoutMs) {
  constexpr uint32_t kNotStopped = 0xFFFFFFFF;
  const std::shared_ptr<CapsuleEvent> stopped = m_pStoppedEvent;
  return stopped == nullptr ? kNotStopped : stopped->waitAll(timeoutMs, CapsuleEvent::ReturnIndex);
}

void CapsuleThread::newThread(void* object) {
  auto* thread = static_cast<CapsuleThread*>(object);
  thread->threadBody();
  thread->startProtect();
  // Whoever waits for the stop event may destroy the object as soon as it is signalled.
  const std::shared_ptr<CapsuleEvent> keptAlive = thread->m_pStoppedEvent;
  thread->startUnProtect();
  thread->setThreadStopped();
}

void CapsuleThread::doneThread(uint32_t exitCode) { platform::ExitThread(exitCode); }

void CapsuleThread::setThreadStopped() {
  if (m_pStoppedEvent != nullptr) m_pStoppedEvent->setEvent();
}

void CapsuleThread::startProtect() { m_pStartMutex->lock(); }

void CapsuleThread::startUnProtect() { m_pStartMutex->unlock(); }

}  // namespace capsule
