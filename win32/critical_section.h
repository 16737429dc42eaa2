// The one kind of lock: an annotated CRITICAL_SECTION and its scoped guard.
//
// Threads: enter and leave on the same thread. The owner may enter again, as the log's roller does
// through LogMessage; a function that is called under a lock says ZEL_REQUIRES instead.
// Lifetime: made for objects of static storage; the section is never deleted, so that a thread
// still running while the process ends finds it intact.
#pragma once

#include <windows.h>

#include "win32/thread_annotations.h"

namespace zel {

class ZEL_CAPABILITY("critical section") CriticalSection {
 public:
  CriticalSection() noexcept { ::InitializeCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter() noexcept ZEL_ACQUIRE() { ::EnterCriticalSection(&section_); }
  void Leave() noexcept ZEL_RELEASE() { ::LeaveCriticalSection(&section_); }

 private:
  CRITICAL_SECTION section_;
};

// Holds a CriticalSection from construction to destruction.
class [[nodiscard]] ZEL_SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(CriticalSection& lock) noexcept ZEL_ACQUIRE(lock) : lock_(lock) {
    lock_.Enter();
  }
  ~LockGuard() ZEL_RELEASE() { lock_.Leave(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  CriticalSection& lock_;
};

}  // namespace zel
