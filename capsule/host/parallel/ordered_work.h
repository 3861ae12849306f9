// OrderedWork runs jobs on threads of its own and gives them back in the order in which they came.
//
//   OrderedWork work(4);
//   for (auto& file : files) {
//     work.Push(std::make_unique<Encode>(file));
//     while (work.IsFull()) Write(*work.TakeFirst());
//   }
//   while (!work.IsEmpty()) Write(*work.TakeFirst());
//
// One thread, that of the object, pushes and takes; so whatever depends on the order, and whatever
// is the host's, stays on it. With one worker there are no threads: Push does the job.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace capsule::host {

class OrderedWork {
 public:
  class Job {
   public:
    Job() = default;
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    virtual ~Job() = default;

    // `worker`: the number of the thread, below Workers(), for what it uses again and again.
    virtual void Run(size_t worker) = 0;
  };

  // `workers`: at least 1. Where the system has no room for so many threads there are fewer.
  explicit OrderedWork(size_t workers);

  // Waits for the jobs that are being done, and drops the others.
  ~OrderedWork();
  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;

  size_t Workers() const { return m_workers; }

  void Push(std::unique_ptr<Job> job);

  // Whether so many jobs are under way that pushing more would only take memory.
  bool IsFull() const { return m_places.size() >= m_limit; }
  bool IsEmpty() const { return m_places.empty(); }

  // Whether TakeFirst need not wait.
  bool IsFirstDone() const;

  // The job that came first, when it is done; there must be one. Throws what it has thrown.
  std::unique_ptr<Job> TakeFirst();

 private:
  struct Place {
    std::unique_ptr<Job> job;
    std::exception_ptr thrown;
    bool isDone = false;
  };

  void Work(size_t worker);
  static void Do(Place& place, size_t worker);

  size_t m_workers;
  size_t m_limit;
  mutable std::mutex m_mutex;
  std::condition_variable m_hasWork;
  std::condition_variable m_hasDone;
  std::deque<std::unique_ptr<Place>> m_places;  // in the order of the jobs
  size_t m_begun = 0;                           // of m_places, from the front
  bool m_isEnding = false;
  std::vector<std::thread> m_threads;
};

}  // namespace capsule::host
