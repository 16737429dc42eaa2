// A lock the size of a pointer, and a condition to wait for under it.
//
// Threads: enter and leave on the same thread, which must not enter again.
// Lifetime: nothing is allocated or deleted, so that a thread still running while the process ends
// finds them intact.
// On other systems than Windows the standard library's stand in, for the tests of what is built
// upon them.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <condition_variable>
#include <mutex>
#endif

#include "win32/lock_guard.h"
#include "win32/thread_annotations.h"

namespace zel {

class ZEL_CAPABILITY("mutex") Mutex {
 public:
  Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

#ifdef _WIN32
  void Enter() noexcept ZEL_ACQUIRE() {
    ::AcquireSRWLockExclusive(&lock_);
  }
  void Leave() noexcept ZEL_RELEASE() {
    ::ReleaseSRWLockExclusive(&lock_);
  }
#else
  void Enter() noexcept ZEL_ACQUIRE() {
    lock_.lock();
  }
  void Leave() noexcept ZEL_RELEASE() {
    lock_.unlock();
  }
#endif

  // Whether somebody held it a moment ago. (The analysis cannot follow a lock that is only tried.)
  [[nodiscard]] bool IsTaken() noexcept ZEL_UNCHECKED {
#ifdef _WIN32
    if (!::TryAcquireSRWLockExclusive(&lock_)) return true;
#else
    if (!lock_.try_lock()) return true;
#endif
    Leave();
    return false;
  }

 private:
  friend class Condition;
#ifdef _WIN32
  SRWLOCK lock_ = SRWLOCK_INIT;
#else
  std::mutex lock_;
#endif
};

class Condition {
 public:
  // Lets go of the mutex, waits to be notified and takes the mutex again; may return unasked.
  void Wait(Mutex& mutex) noexcept ZEL_REQUIRES(mutex) {
#ifdef _WIN32
    ::SleepConditionVariableSRW(&condition_, &mutex.lock_, INFINITE, 0);
#else
    std::unique_lock lock(mutex.lock_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
#endif
  }

#ifdef _WIN32
  void NotifyOne() noexcept {
    ::WakeConditionVariable(&condition_);
  }
  void NotifyAll() noexcept {
    ::WakeAllConditionVariable(&condition_);
  }
#else
  void NotifyOne() noexcept {
    condition_.notify_one();
  }
  void NotifyAll() noexcept {
    condition_.notify_all();
  }
#endif

 private:
#ifdef _WIN32
  CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
#else
  std::condition_variable condition_;
#endif
};

}  // namespace zel
