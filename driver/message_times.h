// How far the driver's messages have been processed. Portable.
//
// Threads: any.
// Units: the driver's time stamps.
#pragma once

#include <atomic>

#include "files/types.h"
#include "win32/mutex.h"

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

// The time of the latest notification, and those who wait for a further one: the latest stands
// above all that follow when the clock was set back since.
class SyncTime {
 public:
  // Looks out for the notifications that come while it lives. One thread's own.
  class Watch {
   public:
    // For one that is stamped at or past `request_time`. `times` outlives the watch.
    Watch(SyncTime& times, FileTime request_time) noexcept
        : times_(times), request_time_(request_time) {
      const LockGuard guard(times_.lock_);
      next_ = times_.watches_;
      times_.watches_ = this;
    }
    ~Watch() {
      const LockGuard guard(times_.lock_);
      Watch** place = &times_.watches_;
      while (*place != this) place = &(*place)->next_;
      *place = next_;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Whether one has come. One in the future of `now`, the present, stems from before the clock
    // was set back.
    [[nodiscard]] bool HasSeen(FileTime now) const noexcept {
      return earliest_.load(std::memory_order_acquire) <= now;
    }

   private:
    friend class SyncTime;

    void Note(FileTime time) noexcept {
      if (time >= request_time_ && time < earliest_.load(std::memory_order_relaxed)) {
        earliest_.store(time, std::memory_order_release);
      }
    }

    SyncTime& times_;
    const FileTime request_time_;
    std::atomic<FileTime> earliest_{~FileTime{0}};  // stored under times_.lock_
    Watch* next_ = nullptr;                         // under times_.lock_
  };

  // As HighWaterMark's; every watch sees the time.
  void Raise(FileTime time) noexcept ZEL_EXCLUDES(lock_) {
    latest_.Raise(time);
    const LockGuard guard(lock_);
    for (Watch* watch = watches_; watch != nullptr; watch = watch->next_) watch->Note(time);
  }

  [[nodiscard]] FileTime Get() const noexcept { return latest_.Get(); }

 private:
  HighWaterMark latest_;
  Mutex lock_;
  Watch* watches_ ZEL_GUARDED_BY(lock_) = nullptr;
};

// The latest time stamp of any message but a queue sync notification. Raised, like the other, by
// none but those who handle messages.
inline constinit HighWaterMark LastMessageTime;

// The latest time stamp of a queue sync notification: every message that the driver created before
// then has been received, though another thread may still be at work on it
// (driver/reader_barrier.h).
inline constinit SyncTime LastSyncTime;

}  // namespace zel
