// How far the driver's messages have been processed. Pure.
//
// Threads: any.
// Units: the driver's time stamps.
#pragma once

#include <atomic>

#include "files/types.h"

namespace zel {

// The latest of all times that were ever raised to. A reader of a time sees everything done before
// that time was raised.
class HighWaterMark {
 public:
  // An earlier time than the latest changes nothing.
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

// The latest time stamp of any message but a queue sync notification. Raised, like the other, by
// the message threads alone.
inline constinit HighWaterMark LastMessageTime;

// The latest time stamp of a queue sync notification: every message that the driver created before
// then has been received, though another thread may still be at work on it
// (driver/reader_barrier.h).
inline constinit HighWaterMark LastSyncTime;

}  // namespace zel
