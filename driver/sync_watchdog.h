// How to wait for the driver: how long between two looks, and when to give up. Pure: the caller
// reads the clock.
//
// Units: times of one clock, the system's; time-outs in whole seconds, and a time-out of n seconds
// is over when n + 1 have passed. Any time-out is taken as an unsigned number.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include "files/types.h"
#include "win32/file_time.h"

namespace zel {

// Milliseconds to wait between two looks: twice as many every time, at most 5 s.
class WaitBackoff {
 public:
  explicit WaitBackoff(std::uint32_t first_ms) : next_ms_(first_ms) {}

  // Of the next wait.
  [[nodiscard]] std::uint32_t Next() {
    return std::exchange(next_ms_, std::min(2 * next_ms_, kLongestMs));
  }

 private:
  static constexpr std::uint32_t kLongestMs = 5000;
  std::uint32_t next_ms_;
};

// Counts the seconds since a point in time.
class InactivityTimer {
 public:
  InactivityTimer(FileTime since, std::uint64_t timeout_seconds)
      : since_(since), timeout_seconds_(timeout_seconds) {}

  void Restart(FileTime now) { since_ = now; }

  // Whether the time-out is over. A clock that was set back starts it anew.
  [[nodiscard]] bool IsOver(FileTime now) {
    if (now < since_) Restart(now);
    return (now - since_) / kFileTimeUnitsPerSecond > timeout_seconds_;
  }

 private:
  FileTime since_;
  std::uint64_t timeout_seconds_;
};

// Watches the driver's messages while their queue is being emptied: as long as some arrive there is
// hope, unless they are events from long after the request, whose answer must then be lost.
class SyncWatchdog {
 public:
  enum class Verdict { kGoOn, kMessagesTooLate, kNoMessages };

  // `send_time`: of the request. `last_message`: the latest message's time stamp at `now`.
  SyncWatchdog(FileTime send_time, FileTime last_message, FileTime now,
               std::uint64_t timeout_seconds)
      : send_time_(send_time),
        seen_(last_message),
        timeout_seconds_(timeout_seconds),
        quiet_(now, timeout_seconds) {}

  [[nodiscard]] Verdict Check(FileTime last_message, FileTime now) {
    if (last_message != seen_) {
      if (last_message > send_time_ &&
          (last_message - send_time_) / kFileTimeUnitsPerSecond > timeout_seconds_) {
        return Verdict::kMessagesTooLate;
      }
      seen_ = last_message;
      quiet_.Restart(now);
    }
    return quiet_.IsOver(now) ? Verdict::kNoMessages : Verdict::kGoOn;
  }

 private:
  FileTime send_time_;
  FileTime seen_;
  std::uint64_t timeout_seconds_;
  InactivityTimer quiet_;
};

}  // namespace zel
