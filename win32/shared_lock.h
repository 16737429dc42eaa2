// A lock that many threads take shared, all the time, and few exclusively, now and then.
//
// A lock that readers share is still one cache line, which they hand to each other. This one has a
// cell for each few threads: a reader takes its own, which nobody else on another processor
// touches; a writer takes them all, in one order.
//
// Threads: enter and leave on the same thread, which must not enter again, neither way.
// Cost: shared, one uncontended lock; exclusive, kCells of them.
// Lifetime: as a Mutex's.
#pragma once

#include <array>
#include <cstddef>

#ifdef _WIN32
#include <windows.h>
#else
#include <functional>
#include <shared_mutex>
#include <thread>
#endif

#include "win32/lock_guard.h"
#include "win32/thread_annotations.h"

namespace zel {

class ZEL_CAPABILITY("shared lock") SharedLock {
 public:
  SharedLock() noexcept = default;
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;

  void Enter() noexcept ZEL_ACQUIRE() {
    for (Cell& cell : cells_) cell.Enter();
  }
  void Leave() noexcept ZEL_RELEASE() {
    for (Cell& cell : cells_) cell.Leave();
  }

  // Returns the cell, to be given back.
  std::size_t EnterShared() noexcept ZEL_ACQUIRE_SHARED() {
    const std::size_t cell = CellOfThread();
    cells_[cell].EnterShared();
    return cell;
  }
  void LeaveShared(std::size_t cell) noexcept ZEL_RELEASE_SHARED() { cells_[cell].LeaveShared(); }

 private:
  static constexpr std::size_t kCells = 8;
  static constexpr std::size_t kCacheLine = 64;

#ifdef _WIN32
  struct alignas(kCacheLine) Cell {
    void Enter() noexcept { ::AcquireSRWLockExclusive(&lock); }
    void Leave() noexcept { ::ReleaseSRWLockExclusive(&lock); }
    void EnterShared() noexcept { ::AcquireSRWLockShared(&lock); }
    void LeaveShared() noexcept { ::ReleaseSRWLockShared(&lock); }
    SRWLOCK lock = SRWLOCK_INIT;
  };
  // Ids are multiples of four, and those of threads that are made together follow each other.
  static std::size_t CellOfThread() noexcept {
    return ::GetCurrentThreadId() / 4 % kCells;
  }
#else
  struct alignas(kCacheLine) Cell {
    void Enter() noexcept { lock.lock(); }
    void Leave() noexcept { lock.unlock(); }
    void EnterShared() noexcept { lock.lock_shared(); }
    void LeaveShared() noexcept { lock.unlock_shared(); }
    std::shared_mutex lock;
  };
  static std::size_t CellOfThread() noexcept {
    return std::hash<std::thread::id>()(std::this_thread::get_id()) % kCells;
  }
#endif

  std::array<Cell, kCells> cells_;
};

// Holds a SharedLock shared from construction to destruction.
class [[nodiscard]] ZEL_SCOPED_CAPABILITY SharedGuard {
 public:
  explicit SharedGuard(SharedLock& lock) noexcept ZEL_ACQUIRE_SHARED(lock)
      : lock_(lock), cell_(lock.EnterShared()) {}
  ~SharedGuard() ZEL_RELEASE() { lock_.LeaveShared(cell_); }
  SharedGuard(const SharedGuard&) = delete;
  SharedGuard& operator=(const SharedGuard&) = delete;

 private:
  SharedLock& lock_;
  const std::size_t cell_;
};

}  // namespace zel
