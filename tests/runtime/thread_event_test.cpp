#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "capsule/runtime/capsule_event.h"
#include "capsule/runtime/capsule_thread.h"

namespace capsule {
namespace {

constexpr uint32_t kTimeout = 0xFFFFFFFF;
constexpr int kForever = -1;

TEST(CapsuleEvent, EqualNamesShareOneEvent) {
  CapsuleEvent setter("shared", CapsuleEvent::AutoReset);
  CapsuleEvent waiter("shared", CapsuleEvent::AutoReset);
  CapsuleEvent other("other", CapsuleEvent::AutoReset);
  EXPECT_EQ(setter.isEqual(waiter), 1);
  EXPECT_EQ(setter.isEqual(other), 0);

  std::atomic<uint32_t> result = 7;
  std::thread thread([&] { result = waiter.waitAll(kForever, CapsuleEvent::ReturnIndex); });
  setter.setEvent();
  thread.join();
  EXPECT_EQ(result, 0U);
  EXPECT_EQ(setter.waitAll(0, CapsuleEvent::ReturnIndex), kTimeout) << "the wait cleared it";
}

TEST(CapsuleEvent, LowestSignalledIndexWins) {
  CapsuleEvent own("own", CapsuleEvent::AutoReset);
  CapsuleEvent first("first", CapsuleEvent::ManualReset);
  CapsuleEvent second("second", CapsuleEvent::AutoReset);
  own << first << second;
  second.setEvent();
  first.setEvent();
  EXPECT_EQ(own.waitAll(kForever, CapsuleEvent::ReturnIndex), 1U);
  EXPECT_EQ(own.waitAll(kForever, CapsuleEvent::ReturnHandle), first.handle()) << "manual: stays";
  first.resetEvent();
  EXPECT_EQ(own.waitAll(kForever, CapsuleEvent::ReturnIndex), 2U);
  EXPECT_EQ(own.waitAll(5, CapsuleEvent::ReturnIndex), kTimeout) << "auto: cleared by the wait";
}

TEST(CapsuleEvent, AutoResetLetsOneWaiterThroughForEachSet) {
  CapsuleEvent event("turnstile", CapsuleEvent::AutoReset);
  std::atomic<int> through = 0;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      CapsuleEvent mine("turnstile", CapsuleEvent::AutoReset);
      if (mine.waitAll(kForever, CapsuleEvent::ReturnIndex) == 0) ++through;
    });
  }
  for (int expected = 1; expected <= 4; ++expected) {
    event.setEvent();
    while (through < expected) std::this_thread::yield();
    EXPECT_EQ(through, expected);
  }
  for (std::thread& waiter : waiters) waiter.join();
}

TEST(CapsuleEvent, CopiesAssignmentsAndDefaults) {
  auto original = std::make_unique<CapsuleEvent>("copied", CapsuleEvent::ManualReset);
  CapsuleEvent copy(*original);
  CapsuleEvent assigned;
  *original << copy;
  assigned = *original;
  EXPECT_EQ(assigned.Entries(), 0);
  original->setEvent();
  original.reset();
  EXPECT_EQ(copy.waitAll(0, CapsuleEvent::ReturnIndex), 0U);
  EXPECT_EQ(assigned.waitAll(0, CapsuleEvent::ReturnIndex), 0U);
  EXPECT_EQ(assigned.isEqual(copy), 1);
  {
    CapsuleEvent bare("forgotten", CapsuleEvent::ManualReset);
    bare.setEvent();
    EXPECT_EQ(bare.SetDefaults(), 0);
    EXPECT_EQ(bare.isValid(), 0);
    bare.setEvent();
    EXPECT_EQ(bare.waitAll(kForever, CapsuleEvent::ReturnIndex), kTimeout) << "no handle: no wait";
  }
  CapsuleEvent fresh("forgotten", CapsuleEvent::AutoReset);
  EXPECT_EQ(fresh.waitAll(0, CapsuleEvent::ReturnIndex), kTimeout) << "the old one is gone";
}

class Counter : public CapsuleThread {
 public:
  Counter() = default;
  Counter(const Counter& other) : CapsuleThread(other) {}

  std::atomic<int> rounds = 0;
  std::atomic<bool> spin = false;

 protected:
  void threadBody() override {
    do {
      ++rounds;
    } while (spin && isStarted() != 0);
  }
};

TEST(CapsuleThread, StopEventIsSeenHoweverQuickTheBody) {
  for (int i = 0; i < 300; ++i) {
    Counter counter;
    ASSERT_EQ(counter.isThreadStopped(kForever), kTimeout) << "never started";
    ASSERT_NE(counter.startThread(), 0U);
    ASSERT_EQ(counter.isThreadStopped(kForever), 0U);
    ASSERT_EQ(counter.rounds, 1);
    ASSERT_EQ(counter.isThreadStopped(0), kTimeout) << "seen once";
  }
}

TEST(CapsuleThread, StoppingIsARequestAndCopiesShareTheThread) {
  Counter counter;
  counter.spin = true;
  const ThreadHandle handle = counter.startThread();
  auto copy = std::make_unique<Counter>(counter);
  EXPECT_EQ(copy->handle(), handle);
  EXPECT_EQ(counter.isStarted(), 1);
  EXPECT_EQ(copy->isThreadStopped(10), kTimeout);
  counter.setThreadStopping();
  EXPECT_EQ(counter.isStarted(), 0);
  EXPECT_EQ(copy->isThreadStopped(kForever), 0U);
  copy.reset();
  EXPECT_EQ(counter.isThreadStopped(0), kTimeout);
}

// What may be called from any thread is, from the body and from another thread, while the object
// is started again and again.
TEST(CapsuleThread, MayBeAskedWhileItIsStartedAgain) {
  class Nested : public CapsuleThread {
   public:
    std::atomic<bool> wait = true;

   protected:
    void threadBody() override {
      startUnProtect();  // not entered
      startProtect();
      startProtect();
      while (handle() == 0) std::this_thread::yield();
      startUnProtect();
      startUnProtect();
      while (wait) std::this_thread::yield();
    }
  } nested;
  std::atomic<bool> done = false;
  std::thread other([&] {
    while (!done) static_cast<void>(nested.handle() + static_cast<uint32_t>(nested.isStarted()));
  });
  std::thread second([&] {
    while (!done) nested.startThread();
  });
  while (nested.handle() == 0) std::this_thread::yield();
  const ThreadHandle running = nested.handle();
  EXPECT_EQ(nested.startThread(), 0U) << "it runs";
  EXPECT_EQ(nested.handle(), running);
  EXPECT_EQ(nested.isThreadStopped(0), kTimeout);
  nested.wait = false;
  while (nested.handle() < running + 50) nested.isThreadStopped(0);
  done = true;
  other.join();
  second.join();
  while (nested.startThread() == 0) std::this_thread::yield();
  EXPECT_EQ(nested.isThreadStopped(kForever), 0U);
}

}  // namespace
}  // namespace capsule
