#include "capsule/runtime/cps_list.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <deque>
#include <random>
#include <thread>

namespace capsule {
namespace {

void* Element(size_t i) {
  static char base[1 << 20];
  return base + i;
}

TEST(CpsListTest, BehavesLikeASimpleSequence) {
  std::mt19937 random(3);
  CpsList list;
  std::deque<void*> model;
  for (size_t step = 0; step < 100000; ++step) {
    const auto count = static_cast<int>(model.size());
    const int index = std::uniform_int_distribution<int>(-1, count)(random);
    const auto operation = random() % 5;
    if (operation < 2) {
      list.Append(Element(step));
      model.push_back(Element(step));
    } else if (operation < 4) {
      const int gone = operation == 2 ? 0 : index;
      list.RemoveAt(gone);
      if (gone >= 0 && gone < count) model.erase(model.begin() + gone);
    }
    const int now = list.GetCount();
    ASSERT_EQ(now, static_cast<int>(model.size()));
    for (const int i : {-1, 0, index, now - 1, now}) {
      ASSERT_EQ(list.GetAt(i), i >= 0 && i < now ? model[static_cast<size_t>(i)] : nullptr);
    }
  }
}

// Moving all elements at each removal would take longer than a test is given.
TEST(CpsListTest, ElementsAndRemovingTheFirstCostConstantTime) {
  CpsList list;
  constexpr int kCount = 2000000;
  for (size_t i = 0; i < kCount; ++i) list.Append(Element(i));
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(list.GetAt(i), Element(static_cast<size_t>(i)));
  for (size_t i = 0; list.GetCount() > 0; ++i) {
    ASSERT_EQ(list.GetAt(0), Element(i));
    list.RemoveAt(0);
  }
}

TEST(CpsListTest, AQueueThatStaysShortTakesNoMoreAndMoreMemory) {
  const auto megabytes = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
  };
  const long before = megabytes();
  CpsList list;
  for (int i = 0; i < 3; ++i) list.Append(Element(0));
  for (int i = 0; i < 10'000'000; ++i) {
    list.Append(Element(0));
    list.RemoveAt(0);
  }
  EXPECT_EQ(list.GetCount(), 3);
  EXPECT_LT(megabytes() - before, 40) << "ten million dead elements would take 80";
}

TEST(CpsListTest, ThreadsAppendWhileOthersWalk) {
  CpsList list;
  constexpr int kPerThread = 20000;
  const auto append = [&list](size_t value) {
    for (int i = 0; i < kPerThread; ++i) list.Append(Element(value));
  };
  std::thread one(append, 1);
  std::thread two(append, 2);
  for (int i = 0; i < 2 * kPerThread;) {
    if (list.GetAt(i) != nullptr) ++i;
  }
  one.join();
  two.join();
  EXPECT_EQ(list.GetCount(), 2 * kPerThread);

  list.Lock();
  std::thread blocked(append, 3);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(list.GetCount(), 2 * kPerThread) << "the lock is recursive and keeps others out";
  list.Unlock();
  blocked.join();
  EXPECT_EQ(list.GetCount(), 3 * kPerThread);
}

}  // namespace
}  // namespace capsule
