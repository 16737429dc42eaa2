#include "driver/sync_watchdog.h"
#include "win32/file_time.h"

namespace zel {

bool InactivityTimer::IsOver(FileTime now) {
  if (now < since_) Restart(now);
  return (now - since_) / kFileTimeUnitsPerSecond > timeout_seconds_;
}

SyncWatchdog::Verdict SyncWatchdog::Check(FileTime last_message, FileTime now) {
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

}  // namespace zel
