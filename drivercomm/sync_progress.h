// When a wait for the driver is to be given up. Pure: the caller reads the clock.
//
// Units: times of one clock, the system's; time-outs in whole seconds, and a time-out of n seconds
// is over when n + 1 have passed. Any time-out is taken as an unsigned number.
#pragma once

#include <cstdint>

#include "common/types.h"

namespace zel {

// Counts the seconds since a point in time.
class Patience {
 public:
  Patience(FileTime since, std::uint64_t timeout_seconds)
      : since_(since), timeout_seconds_(timeout_seconds) {}

  void Restart(FileTime now) { since_ = now; }

  // Whether the time-out is over. A clock that was set back starts it anew.
  [[nodiscard]] bool IsOver(FileTime now);

 private:
  FileTime since_;
  std::uint64_t timeout_seconds_;
};

// Watches the driver's messages while their queue is being emptied: as long as some arrive there is
// hope, unless they are events from long after the request, whose answer must then be lost.
class SyncProgress {
 public:
  enum class Verdict { kGoOn, kMessagesTooLate, kNoMessages };

  // `send_time`: of the request. `last_message`: the latest message's time stamp at `now`.
  SyncProgress(FileTime send_time, FileTime last_message, FileTime now,
               std::uint64_t timeout_seconds)
      : send_time_(send_time),
        seen_(last_message),
        timeout_seconds_(timeout_seconds),
        quiet_(now, timeout_seconds) {}

  [[nodiscard]] Verdict Judge(FileTime last_message, FileTime now);

 private:
  FileTime send_time_;
  FileTime seen_;
  std::uint64_t timeout_seconds_;
  Patience quiet_;
};

}  // namespace zel
