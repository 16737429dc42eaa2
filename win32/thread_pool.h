// A few threads that carry out jobs side by side, for work that waits more than it computes.
//
// Two kinds of work: jobs that are posted and looked after by nobody, and a batch, whose caller
// waits for all of it and takes part in it. A batch goes before the jobs that are posted; a bound
// leaves them some of the threads.
//
// Threads: any. A job may post; it does not run a batch or stop the pool.
// Lifetime: stopped before it goes, or never destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "win32/mutex.h"
#include "win32/thread.h"

namespace zel {

class ThreadPool {
 public:
  using Job = std::function<void()>;

  ThreadPool() = default;
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Starts `threads` threads, as many as can be had. Nothing while there are threads.
  void Start(std::size_t threads) ZEL_EXCLUDES(start_mutex_, mutex_);

  // Carries out what has been posted, then ends the threads. Jobs that are posted afterwards are
  // carried out by their callers. Any number of times, also at once.
  void Stop() ZEL_EXCLUDES(start_mutex_, mutex_);

  // Has a job carried out by some thread; without threads at once, by the caller.
  void Post(Job job) ZEL_EXCLUDES(mutex_);

  // The jobs that were posted until now, to ask for.
  using Mark = std::uint64_t;
  [[nodiscard]] Mark Posted() ZEL_EXCLUDES(mutex_);

  // Whether all of them have been carried out.
  [[nodiscard]] bool HaveEnded(Mark posted) ZEL_EXCLUDES(mutex_);

  // Calls job(0) to job(count - 1), each once, in any order, side by side on at most `most_threads`
  // threads, the caller's among them; in order when that is the only one. Returns when all have
  // ended.
  void RunAll(std::size_t count, std::size_t most_threads,
              const std::function<void(std::size_t)>& job) ZEL_EXCLUDES(mutex_);

 private:
  struct PostedJob {
    std::uint64_t ticket;
    Job job;
  };
  struct Batch;

  static void RunThread(void* self) noexcept;
  void Work() ZEL_EXCLUDES(mutex_);
  // One piece of work, without the mutex. False when there is none.
  bool WorkOnce() ZEL_REQUIRES(mutex_);
  void SetTakesJobs(bool takes_jobs) ZEL_EXCLUDES(mutex_);
  void EndThreads() ZEL_REQUIRES(start_mutex_) ZEL_EXCLUDES(mutex_);

  Mutex start_mutex_;  // before mutex_; held while threads are waited for
  std::vector<std::unique_ptr<WorkerThread>> threads_ ZEL_GUARDED_BY(start_mutex_);

  Mutex mutex_;
  Condition work_came_;
  Condition work_ended_;
  bool takes_jobs_ ZEL_GUARDED_BY(mutex_) = false;
  std::deque<PostedJob> posted_ ZEL_GUARDED_BY(mutex_);
  std::deque<std::shared_ptr<Batch>> batches_ ZEL_GUARDED_BY(mutex_);  // one entry a thread wanted
  std::uint64_t next_ticket_ ZEL_GUARDED_BY(mutex_) = 0;
  std::set<std::uint64_t> open_tickets_ ZEL_GUARDED_BY(mutex_);
};

}  // namespace zel
