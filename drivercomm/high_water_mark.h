// The latest of all times that were ever noted. Pure.
//
// Threads: any. Who reads a time sees all that was done before it was noted.
#pragma once

#include <atomic>

#include "common/types.h"

namespace zel {

class HighWaterMark {
 public:
  // Notes a time; an earlier one than the latest changes nothing.
  void Raise(FileTime time) noexcept {
    FileTime latest = latest_.load(std::memory_order_relaxed);
    while (time > latest && !latest_.compare_exchange_weak(latest, time, std::memory_order_acq_rel,
                                                           std::memory_order_relaxed)) {
    }
  }

  [[nodiscard]] FileTime Get() const noexcept { return latest_.load(std::memory_order_acquire); }

 private:
  std::atomic<FileTime> latest_{0};
};

}  // namespace zel
