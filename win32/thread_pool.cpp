#include "win32/thread_pool.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace zel {

// Threads take the next number until there is none.
struct ThreadPool::Batch {
  Batch(std::size_t jobs, const std::function<void(std::size_t)>& work) : count(jobs), job(work) {}

  const std::size_t count;
  const std::function<void(std::size_t)>& job;  // the caller's, who waits
  std::atomic<std::size_t> next{0};
  std::size_t helpers = 0;  // threads at work on it besides the caller; under the pool's mutex

  void Run() {
    for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;) job(i);
  }
};

void ThreadPool::SetTakesJobs(bool takes_jobs) {
  const LockGuard guard(mutex_);
  takes_jobs_ = takes_jobs;
  if (!takes_jobs) work_came_.NotifyAll();
}

void ThreadPool::Start(std::size_t threads) {
  const LockGuard start(start_mutex_);
  if (!threads_.empty()) return;
  SetTakesJobs(true);  // a thread that finds nothing to do and nothing to come ends
  for (std::size_t i = 0; i < threads; ++i) {
    auto thread = std::make_unique<WorkerThread>();
    if (!thread->Start(RunThread, this)) break;
    threads_.push_back(std::move(thread));
  }
  if (threads_.empty()) EndThreads();
}

void ThreadPool::Stop() {
  const LockGuard start(start_mutex_);
  EndThreads();
}

// What is left in the queue when there never was a thread is carried out here.
void ThreadPool::EndThreads() {
  SetTakesJobs(false);
  for (const auto& thread : threads_) thread->Join();
  threads_.clear();
  const LockGuard guard(mutex_);
  while (WorkOnce()) work_ended_.NotifyAll();
}

void ThreadPool::Post(Job job) {
  {
    const LockGuard guard(mutex_);
    if (takes_jobs_) {
      posted_.push_back({next_ticket_, std::move(job)});
      open_tickets_.insert(open_tickets_.end(), next_ticket_++);
      work_came_.NotifyOne();
      return;
    }
  }
  job();
}

ThreadPool::Mark ThreadPool::Posted() {
  const LockGuard guard(mutex_);
  return next_ticket_;
}

bool ThreadPool::HaveEnded(Mark posted) {
  const LockGuard guard(mutex_);
  return open_tickets_.empty() || *open_tickets_.begin() >= posted;
}

void ThreadPool::RunAll(std::size_t count, std::size_t most_threads,
                        const std::function<void(std::size_t)>& job) {
  const auto batch = std::make_shared<Batch>(count, job);
  if (const std::size_t helpers = std::min(count, most_threads); helpers > 1) {
    const LockGuard guard(mutex_);
    if (takes_jobs_) batches_.insert(batches_.end(), helpers - 1, batch);
    work_came_.NotifyAll();
  }
  batch->Run();
  const LockGuard guard(mutex_);
  std::erase(batches_, batch);
  while (batch->helpers != 0) work_ended_.Wait(mutex_);
}

void ThreadPool::RunThread(void* self) noexcept {
  static_cast<ThreadPool*>(self)->Work();
}

void ThreadPool::Work() {
  const LockGuard guard(mutex_);
  for (;;) {
    if (WorkOnce()) {
      work_ended_.NotifyAll();
    } else if (!takes_jobs_) {
      return;
    } else {
      work_came_.Wait(mutex_);
    }
  }
}

bool ThreadPool::WorkOnce() {
  if (!batches_.empty()) {
    const std::shared_ptr<Batch> batch = std::move(batches_.front());
    batches_.pop_front();
    ++batch->helpers;
    mutex_.Leave();
    batch->Run();
    mutex_.Enter();
    --batch->helpers;
    return true;
  }
  if (posted_.empty()) return false;
  PostedJob posted = std::move(posted_.front());
  posted_.pop_front();
  mutex_.Leave();
  posted.job();
  posted.job = nullptr;  // what it owns goes before it counts as done
  mutex_.Enter();
  open_tickets_.erase(posted.ticket);
  return true;
}

}  // namespace zel
