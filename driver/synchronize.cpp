#include "driver/synchronize.h"

#include <windows.h>

#include <optional>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "driver/driver_port.h"
#include "driver/message_threads.h"
#include "driver/message_times.h"
#include "driver/open_file_for_driver.h"
#include "driver/reader_barrier.h"
#include "driver/sync_watchdog.h"
#include "errors/error_info.h"
#include "logging/log_message.h"
#include "tracking/tracked_file_table.h"
#include "win32/file_time.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// The setting as an unsigned number: a negative one is as good as none.
std::uint64_t SyncTimeoutSeconds() {
  return static_cast<std::uint64_t>(SyncTimeout.load());
}

constexpr LogFormat<> kSyncStopMessage = L"Synchronize aborting due to service shutdown\n";

// Opens every tracked file, so that the driver sends what it keeps for it; a stop breaks it off.
void FlushDriverState() {
  std::vector<TrackedFileEntry> files;
  CollectTrackedFiles(files);
  for (const TrackedFileEntry& file : files) {
    if (StopRequested) return;
    const std::uint32_t error = OpenFileForDriver(file.Path);
    if (error == ERROR_SUCCESS || FileIsOutOfReach(error)) continue;
    LogMessage(kDriverCommError, L"Failed to open %s to flush filter driver state: %hs\n",
               file.Path.c_str(), ErrorInfo(error).text());
  }
}

HRESULT RequestQueueSync() {
  const HRESULT result = SendDriverCommand(DriverCommand::kSyncMessageQueue);
  if (result != S_OK) {
    LogMessage(kDriverCommError, L"Failed to send sync message to driver: 0x%08x\n", result);
  } else {
    LogMessage(kDriverCommDebug, L"Requested filter driver message queue sync\n");
  }
  return result;
}

// The first wait for the driver; and for a message in hand, which is done as a rule.
constexpr std::uint32_t kDriverWaitMs = 50;
constexpr std::uint32_t kInHandWaitMs = 1;

// Looks at growing intervals until `reached` holds. `give_up` says, and logs, that there is no
// hope left. 0, ERROR_TIMEOUT or, with `stop_message`, ERROR_SHUTDOWN_IN_PROGRESS.
template <class Reached, class GiveUp>
std::uint32_t WaitUntil(Reached reached, GiveUp give_up, LogFormat<> stop_message,
                        std::uint32_t first_wait_ms) {
  WaitBackoff backoff(first_wait_ms);
  while (!reached()) {
    if (give_up()) return ERROR_TIMEOUT;
    if (WaitForDriverStop(backoff.Next())) {
      LogMessage(kDriverCommInfo, stop_message);
      return ERROR_SHUTDOWN_IN_PROGRESS;
    }
  }
  return ERROR_SUCCESS;
}

bool GiveUpSync(SyncWatchdog& watchdog, std::uint64_t timeout_seconds) {
  switch (watchdog.Check(LastMessageTime.Get(), SystemTimeNow())) {
    case SyncWatchdog::Verdict::kMessagesTooLate:
      LogMessage(kDriverCommError,
                 L"Synchronize timed out because messages created %I64u seconds after the sync "
                 L"event was sent have arrived\n",
                 timeout_seconds);
      return true;
    case SyncWatchdog::Verdict::kNoMessages:
      LogMessage(kDriverCommError,
                 L"Synchronize timed out because no messages arrived from the driver for %I64u "
                 L"seconds\n",
                 timeout_seconds);
      return true;
    default:
      return false;
  }
}

// When the driver was asked, and what it had answered until then.
struct Question {
  FileTime send_time;
  FileTime last_sync_time;

  // A notification from the future stems from before the clock was set back, and from before what
  // was written since.
  [[nodiscard]] bool WasAnswered(FileTime request_time) const {
    return request_time <= last_sync_time && last_sync_time <= send_time;
  }
};

std::uint32_t WaitForSync(FileTime request_time, const Question& question,
                          const SyncTime::Watch& notifications) {
  const std::uint64_t timeout_seconds = SyncTimeoutSeconds();
  SyncWatchdog watchdog(question.send_time, LastMessageTime.Get(), SystemTimeNow(),
                        timeout_seconds);
  const auto give_up = [&] { return GiveUpSync(watchdog, timeout_seconds); };
  const auto reached = [&] {
    return question.WasAnswered(request_time) || notifications.HasSeen(SystemTimeNow());
  };
  std::uint32_t error = WaitUntil(reached, give_up, kSyncStopMessage, kDriverWaitMs);
  if (error != ERROR_SUCCESS) return error;
  // All of the messages have been received; another thread may have an earlier one in hand still.
  const ReaderBarrier barrier = RaiseReaderBarrier();
  error = WaitUntil([&] { return barrier.Passed(); }, give_up, kSyncStopMessage, kInHandWaitMs);
  if (error != ERROR_SUCCESS) return error;
  // However long the disk takes: the driver has done its part.
  const RecordedReports reports;
  return WaitUntil([&] { return reports.AreSafe(); }, [] { return false; }, kSyncStopMessage,
                   kInHandWaitMs);
}

// Whether every bitmap of the file is verified, or there is no file any more. The driver has
// answered before some bitmap was made: it is asked again, for that one.
bool IsVerified(const FileKey& file, const std::wstring& path, FileTime start) {
  if (AllVerifiedSince(file, start)) return true;
  return AnyVerifiedSince(file, start) &&
         FileIsOutOfReach(OpenFileForDriver(path, kVerifyControlCode));
}

std::uint32_t WaitForVerification(const FileKey& file, const std::wstring& path, FileTime start) {
  const std::uint64_t timeout_seconds = SyncTimeoutSeconds();
  InactivityTimer timer(start, timeout_seconds);
  const auto give_up = [&] {
    const bool is_over = timer.IsOver(SystemTimeNow());
    if (is_over) {
      LogMessage(kDriverCommError,
                 L"Verifying file tracking didn't receive any events after %I64u seconds\n",
                 timeout_seconds);
    }
    return is_over;
  };
  return WaitUntil([&] { return IsVerified(file, path, start); }, give_up,
                   L"Verify file is tracked aborting due to service shutdown\n", kDriverWaitMs);
}

}  // namespace

std::uint32_t Synchronize(FileTime request_time) {
  FlushDriverState();
  if (StopRequested) {  // the port may be closed by now
    LogMessage(kDriverCommInfo, kSyncStopMessage);
    return ERROR_SHUTDOWN_IN_PROGRESS;
  }
  const SyncTime::Watch notifications(LastSyncTime, request_time);
  const Question question = {.send_time = SystemTimeNow(), .last_sync_time = LastSyncTime.Get()};
  if (const HRESULT result = RequestQueueSync(); result != S_OK) {
    return static_cast<std::uint32_t>(result);
  }
  return WaitForSync(request_time, question, notifications);
}

std::uint32_t VerifyFileIsTracked(const std::wstring& path, const VolumeGuid& volume_guid,
                                  FileId file_id) {
  const FileTime start = SystemTimeNow();
  const std::uint32_t error = OpenFileForDriver(path, kVerifyControlCode);
  if (FileIsOutOfReach(error)) return ERROR_SUCCESS;
  if (error != ERROR_SUCCESS) return error;
  return WaitForVerification({volume_guid, file_id}, path, start);
}

std::uint32_t ForceTrackingStop(const std::wstring& path, const VolumeGuid& volume_guid,
                                FileId file_id) {
  const std::optional<std::vector<FileKey>> erased = StopTrackingFile(path);
  if (!erased) return ERROR_SHUTDOWN_IN_PROGRESS;
  NotifyDriverOfTrackingChanges();
  const FileKey file = {volume_guid, file_id};
  DiscardBitmapsOfFile(file);
  // Since the caller's look at the list the path may have come to name another file.
  for (const FileKey& other : *erased) {
    if (other != file) DiscardBitmapsOfFile(other);
  }
  const std::uint32_t error = OpenFileForDriver(path);
  if (error == ERROR_SUCCESS || FileIsOutOfReach(error)) return ERROR_SUCCESS;
  LogMessage(kDriverCommError, L"Failed to open FileId 0x%016I64x to force tracking to stop\n",
             file_id);
  return error;
}

}  // namespace zel
