// Holds a lock from construction to destruction.
#pragma once

#include "win32/thread_annotations.h"

namespace zel {

// For any lock with Enter and Leave: CriticalSection, Mutex, SharedLock (exclusively).
template <class Lock>
class [[nodiscard]] ZEL_SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(Lock& lock) noexcept ZEL_ACQUIRE(lock) : lock_(lock) { lock_.Enter(); }
  ~LockGuard() ZEL_RELEASE() { lock_.Leave(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Lock& lock_;
};

}  // namespace zel
