// One mutex guards the table and every event; each waiting thread sleeps on a condition variable of
// its own, to which the events it waits for point. Setting an event wakes its waiters, and each
// looks again, under the mutex, for the lowest signalled index: so no wake-up is lost, the lowest
// wins, and an auto-reset event lets exactly one waiter through.
#include "capsule/runtime/event_table.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

namespace capsule {
namespace {

struct Event {
  std::string name;
  bool manualReset = false;
  bool signalled = false;
  std::vector<std::condition_variable*> waiters;
};

using Events = std::vector<std::shared_ptr<Event>>;

struct Table {
  std::mutex mutex;
  EventHandle lastHandle = 0;
  std::unordered_map<EventHandle, std::shared_ptr<Event>> open;
  std::unordered_map<std::string, std::weak_ptr<Event>> byName;
};

// Never destroyed: threads may still signal while the process ends.
Table& TheTable() {
  static Table& table = *new Table;
  return table;
}

std::shared_ptr<Event> FindOpen(Table& table, EventHandle handle) {
  const auto found = table.open.find(handle);
  return found == table.open.end() ? nullptr : found->second;
}

int TakeLowestSignalled(const Events& events) {
  const auto signalled = std::ranges::find_if(events, [](const auto& e) { return e->signalled; });
  if (signalled == events.end()) return -1;
  if (!(*signalled)->manualReset) (*signalled)->signalled = false;
  return static_cast<int>(signalled - events.begin());
}

// What wakes one waiter of several events. Comes and goes under the table's mutex.
class Waiter {
 public:
  explicit Waiter(const Events& events) : m_Events(events) {}
  ~Waiter() {
    for (const auto& event : m_Events) std::erase(event->waiters, &wake);
  }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // May throw std::bad_alloc: those events that know the waiter then forget it again.
  void Enlist() {
    for (const auto& event : m_Events) event->waiters.push_back(&wake);
  }

  std::condition_variable wake;

 private:
  const Events& m_Events;
};

int SleepUntilSignalled(const Events& events, int32_t timeoutMs,
                        std::unique_lock<std::mutex>& lock) {
  Waiter waiter(events);
  waiter.Enlist();
  int index = -1;
  const auto signalled = [&] { return (index = TakeLowestSignalled(events)) >= 0; };
  if (timeoutMs < 0) {
    waiter.wake.wait(lock, signalled);
  } else {
    waiter.wake.wait_for(lock, std::chrono::milliseconds(timeoutMs), signalled);
  }
  return index;
}

}  // namespace

EventHandle OpenEvent(const std::string& name, bool manualReset) try {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  std::weak_ptr<Event>& named = table.byName[name];
  std::shared_ptr<Event> event = named.lock();
  if (event == nullptr) {
    event = std::make_shared<Event>();
    event->name = name;
    event->manualReset = manualReset;
    named = event;
  }
  while (++table.lastHandle == 0 || table.open.contains(table.lastHandle)) {
  }
  table.open.emplace(table.lastHandle, std::move(event));
  return table.lastHandle;
} catch (const std::bad_alloc&) {
  return 0;
}

void CloseEvent(EventHandle handle) {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  const std::shared_ptr<Event> event = FindOpen(table, handle);
  table.open.erase(handle);
  // A waiter may still hold the event: its name then stays until the next event of that name.
  if (event != nullptr && event.use_count() == 1) table.byName.erase(event->name);
}

void SignalEvent(EventHandle handle) {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  const std::shared_ptr<Event> event = FindOpen(table, handle);
  if (event == nullptr) return;
  event->signalled = true;
  for (std::condition_variable* waiter : event->waiters) waiter->notify_one();
}

void ClearEvent(EventHandle handle) {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  const std::shared_ptr<Event> event = FindOpen(table, handle);
  if (event != nullptr) event->signalled = false;
}

int WaitForEvents(const std::vector<EventHandle>& handles, int32_t timeoutMs) {
  Table& table = TheTable();
  std::unique_lock lock(table.mutex);
  Events events;
  for (const EventHandle handle : handles) {
    events.push_back(FindOpen(table, handle));
    if (events.back() == nullptr) return -1;
  }
  const int index = TakeLowestSignalled(events);
  return index >= 0 ? index : SleepUntilSignalled(events, timeoutMs, lock);
}

}  // namespace capsule
