#include "drivercomm/sync_progress.h"

namespace zel {

namespace {

constexpr FileTime kUnitsPerSecond = 10'000'000;

}  // namespace

bool Patience::IsOver(FileTime now) {
  if (now < since_) Restart(now);
  return (now - since_) / kUnitsPerSecond > timeout_seconds_;
}

SyncProgress::Verdict SyncProgress::Judge(FileTime last_message, FileTime now) {
  if (last_message != seen_) {
    if (last_message > send_time_ &&
        (last_message - send_time_) / kUnitsPerSecond > timeout_seconds_) {
      return Verdict::kMessagesTooLate;
    }
    seen_ = last_message;
    quiet_.Restart(now);
  }
  return quiet_.IsOver(now) ? Verdict::kNoMessages : Verdict::kGoOn;
}

}  // namespace zel
