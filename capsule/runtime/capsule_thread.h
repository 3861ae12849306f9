// CapsuleThread runs a body on a thread of its own; a subclass supplies the body.
//
//   class Copier : public CapsuleThread {
//    protected:
//     void threadBody() override { while (isStarted() && CopyOne()) {} }
//   };
//   Copier copier;
//   copier.startThread();
//   copier.setThreadStopping();          // a request; the body polls isStarted()
//   copier.isThreadStopped(-1);          // 0 once the body has returned
//
// The object must outlive its thread: wait with isThreadStopped before it goes. Copies share the
// thread, its stop event and its start mutex; the last one to go releases them. Copying and
// assigning belong to one thread; all else may be called from any.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "capsule/export.h"
#include "capsule/runtime/capsule_event.h"

namespace capsule {

// Number of a started thread: 2,000,000,001 and up, not used again in the process.
using ThreadHandle = uint32_t;

class StartLock;

class CAPSULE_API CapsuleThread {
 public:
  CapsuleThread();
  CapsuleThread(const CapsuleThread& other);
  CapsuleThread& operator=(const CapsuleThread& other);

  // Neither stops nor waits for the thread.
  virtual ~CapsuleThread();

  // Starts the thread and creates its stop event, an auto-reset event named by the thread's number
  // in decimal. The handle, or 0 when the system refuses (isStarted is then 0 again), or when this
  // object's thread still runs: nothing is changed then. A thread that has ended may be followed by
  // another.
  virtual ThreadHandle startThread();

  // Asks the body to end: isStarted becomes 0.
  virtual void setThreadStopping();

  int32_t isStarted() const;
  ThreadHandle handle() const;

  // Waits up to `timeoutMs` milliseconds (-1: no limit) for the end of the thread, whoever is in
  // the start sequence. 0 when it has ended, once; 0xFFFFFFFF on timeout or before startThread.
  uint32_t isThreadStopped(int32_t timeoutMs);

 protected:
  virtual void threadBody() = 0;

  // Entry of the thread: the body, then the stop event.
  static void newThread(void* object);

  // Ends the calling thread at once; the stop event is not signalled.
  [[noreturn]] void doneThread(uint32_t exitCode);
  void setThreadStopped();

  // Enter and leave the start sequence. A thread may enter it more than once; leaving it without
  // having entered does nothing, and a thread of an object that ends has left.
  void startProtect();
  void startUnProtect();

 private:
  bool StartCounted();
  std::shared_ptr<CapsuleEvent> StoppedEvent() const;
  void SetStoppedEvent(std::shared_ptr<CapsuleEvent> event);

  std::atomic<uint32_t> m_nThreadId = 0;
  std::atomic<ThreadHandle> m_hThread = 0;
  std::atomic<int32_t> m_bStarted = 0;
  mutable std::mutex m_EventMutex;
  std::shared_ptr<CapsuleEvent> m_pStoppedEvent;  // guarded by m_EventMutex
  bool m_bRunning = false;  // a thread of this object has not ended yet; start sequence only
  std::shared_ptr<StartLock> m_pStartMutex;
};

}  // namespace capsule
