#include "capsule/host/parallel/ordered_work.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

namespace capsule::host {
namespace {

// Jobs a worker: one that it does, one that waits, one that waits to be taken.
constexpr size_t kJobsEach = 3;

}  // namespace

OrderedWork::OrderedWork(size_t workers)
    : m_workers(std::max<size_t>(workers, 1)), m_limit(m_workers == 1 ? 1 : m_workers * kJobsEach) {
  if (m_workers == 1) return;
  m_threads.reserve(m_workers);
  try {
    for (size_t i = 0; i < m_workers; ++i) m_threads.emplace_back([this, i] { Work(i); });
  } catch (const std::system_error&) {
    // Those that there are do the work; without any, the thread that pushes.
  } catch (const std::bad_alloc&) {
    // The same; and to throw would end the process, since threads must not go unjoined.
  }
}

OrderedWork::~OrderedWork() {
  {
    const std::scoped_lock lock(m_mutex);
    m_isEnding = true;
  }
  m_hasWork.notify_all();
  for (std::thread& thread : m_threads) thread.join();
}

void OrderedWork::Push(std::unique_ptr<Job> job) {
  auto place = std::make_unique<Place>();
  place->job = std::move(job);
  if (m_threads.empty()) {
    Do(*place, 0);
    place->isDone = true;
    m_places.push_back(std::move(place));
    return;
  }
  {
    const std::scoped_lock lock(m_mutex);
    m_places.push_back(std::move(place));
  }
  m_hasWork.notify_one();
}

bool OrderedWork::IsFirstDone() const {
  if (m_places.empty()) return false;
  const std::scoped_lock lock(m_mutex);
  return m_places.front()->isDone;
}

std::unique_ptr<OrderedWork::Job> OrderedWork::TakeFirst() {
  std::unique_ptr<Place> first;
  {
    std::unique_lock lock(m_mutex);
    m_hasDone.wait(lock, [this] { return m_places.front()->isDone; });
    first = std::move(m_places.front());
    m_places.pop_front();
    if (m_begun != 0) --m_begun;
  }
  if (first->thrown) std::rethrow_exception(first->thrown);
  return std::move(first->job);
}

void OrderedWork::Work(size_t worker) {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_hasWork.wait(lock, [this] { return m_isEnding || m_begun < m_places.size(); });
    if (m_isEnding) return;
    Place& place = *m_places[m_begun++];
    lock.unlock();
    Do(place, worker);
    lock.lock();
    place.isDone = true;
    if (&place == m_places.front().get()) m_hasDone.notify_one();
  }
}

void OrderedWork::Do(Place& place, size_t worker) {
  try {
    place.job->Run(worker);
  } catch (...) {
    place.thrown = std::current_exception();
  }
}

}  // namespace capsule::host
