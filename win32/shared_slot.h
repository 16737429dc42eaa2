// A place for one object that some threads use while another puts it there or takes it away.
//
// Threads: any.
// Lifetime: made for objects of static storage, whose content is never destroyed with the process:
// threads may still use it then. An object that is taken away lives until its last user lets go.
#pragma once

#include <memory>
#include <utility>

#include "win32/critical_section.h"

namespace zel {

template <class T>
class SharedSlot {
 public:
  // The object, or null.
  [[nodiscard]] std::shared_ptr<T> Get() {
    const LockGuard guard(lock_);
    return content_;
  }

  // Puts `object` (null for none) in the place of the one that is there.
  void Set(std::shared_ptr<T> object) {
    const LockGuard guard(lock_);
    content_.swap(object);
  }

 private:
  CriticalSection lock_;
  std::shared_ptr<T>& content_ ZEL_GUARDED_BY(lock_) = *new std::shared_ptr<T>;
};

}  // namespace zel
