#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "capsule/runtime/capsule_event.h"
#include "capsule/runtime/capsule_thread.h"
#include "tests/support/failing_allocations.h"

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

TEST(CapsuleEvent, AManualEventWakesAllWhoWait) {
  CapsuleEvent pause("pause", CapsuleEvent::AutoReset);
  for (int round = 0; round < 5; ++round) {
    CapsuleEvent event("all", CapsuleEvent::ManualReset);
    std::atomic<int> ready = 0;
    std::atomic<int> through = 0;
    const auto wait = [&] {
      CapsuleEvent mine("all", CapsuleEvent::ManualReset);
      ++ready;
      mine.waitAll(kForever, CapsuleEvent::ReturnIndex);
      ++through;
    };
    std::thread first(wait);
    std::thread second(wait);
    while (ready < 2) std::this_thread::yield();
    pause.waitAll(5, CapsuleEvent::ReturnIndex);  // by now both sleep, or it proves less
    event.setEvent();
    for (int i = 0; i < 5000 && through < 2; ++i) pause.waitAll(1, CapsuleEvent::ReturnIndex);
    EXPECT_EQ(through, 2);
    event.setEvent();
    first.join();
    second.join();
  }
}

// What a wait leaves behind in an event would need room in the next.
TEST(CapsuleEvent, AWaitLeavesNothingBehindAlsoWhenMemoryRunsOut) {
  CapsuleEvent alone("left behind", CapsuleEvent::AutoReset);
  const auto allocations = [&] {
    const int before = test::CountAllocations();
    EXPECT_EQ(alone.waitAll(0, CapsuleEvent::ReturnIndex), kTimeout);
    return test::CountAllocations() - before;
  };
  allocations();
  const int usual = allocations();
  for (int failing = 0; failing < 40; ++failing) {
    CapsuleEvent same("left behind", CapsuleEvent::AutoReset);
    CapsuleEvent linked("linked", CapsuleEvent::AutoReset);
    same << linked;
    {
      const test::FailingAllocation fails(failing);
      EXPECT_EQ(same.waitAll(0, CapsuleEvent::ReturnIndex), kTimeout);
    }
    EXPECT_EQ(same.isValid(), test::HasAllocationFailed() ? 0 : 1);
    ASSERT_EQ(allocations(), usual) << failing;
  }
  alone.setEvent();
  EXPECT_EQ(alone.waitAll(kForever, CapsuleEvent::ReturnIndex), 0U);
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

TEST(CapsuleThread, EventsThatAHostNamesByNumbersAreNotItsStopEvent) {
  std::vector<std::unique_ptr<CapsuleEvent>> events;
  for (int i = 0; i < 2000; ++i) {
    events.push_back(
        std::make_unique<CapsuleEvent>(std::to_string(i).c_str(), CapsuleEvent::ManualReset));
    events.back()->setEvent();
  }
  Counter counter;
  counter.spin = true;
  const ThreadHandle handle = counter.startThread();
  EXPECT_EQ(counter.isThreadStopped(0), kTimeout);
  CapsuleEvent stopped(std::to_string(handle).c_str(), CapsuleEvent::AutoReset);
  counter.setThreadStopping();
  EXPECT_EQ(stopped.waitAll(kForever, CapsuleEvent::ReturnIndex), 0U) << "named by its number";
}

// Whoever holds the start lock, and however its holder ends, a wait for the thread ends in time.
TEST(CapsuleThread, TheStartLockHoldsUpNobodyWhoWaitsForTheEnd) {
  class Holder : public CapsuleThread {
   public:
    bool ends = false;  // by itself, without the stop event
    CapsuleEvent held{"held", CapsuleEvent::AutoReset};
    CapsuleEvent asked{"asked", CapsuleEvent::AutoReset};
    uint32_t wasAsked = kTimeout;

   protected:
    void threadBody() override {
      startProtect();
      startProtect();
      const bool endsHere = ends;
      held.setEvent();
      wasAsked = asked.waitAll(20000, CapsuleEvent::ReturnIndex);
      if (endsHere) doneThread(0);
    }
  } holder;
  for (int i = 0; i < 4; ++i) {
    holder.ends = i % 2 == 0;
    while (holder.startThread() == 0) std::this_thread::yield();
    holder.held.waitAll(kForever, CapsuleEvent::ReturnIndex);
    EXPECT_EQ(holder.isThreadStopped(0), kTimeout);
    EXPECT_EQ(holder.isThreadStopped(1), kTimeout);
    holder.asked.setEvent();
    if (holder.ends) continue;
    EXPECT_EQ(holder.isThreadStopped(kForever), 0U);
    EXPECT_EQ(holder.wasAsked, 0U);
  }
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
