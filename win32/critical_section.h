// The lock that its owner may enter again: an annotated CRITICAL_SECTION. What needs no second
// entry takes the smaller Mutex (win32/mutex.h).
//
// Threads: enter and leave on the same thread. The owner may enter again, as the log's roller does
// through LogMessage; a function that is called under a lock says ZEL_REQUIRES instead.
// Lifetime: made for objects of static storage; the section is never deleted, so that a thread
// still running while the process ends finds it intact.
#pragma once

#include <windows.h>

#include "win32/lock_guard.h"
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

}  // namespace zel
