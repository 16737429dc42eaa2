#include <algorithm>

#include "logging/config_file.h"
#include "logging/log_file.h"
#include "logging/log_message.h"
#include "logging/logging_threads.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr DWORD kIdleTimeoutMs = 60 * 1000;  // nothing waits for a flush
constexpr DWORD kFlushTimeoutMs = 3 * 1000;  // from a line to the first look whether it is idle

UniqueChangeNotification WatchDirectory(const std::wstring& directory) {
  UniqueChangeNotification notification(
      ::FindFirstChangeNotificationW(directory.c_str(), FALSE, FILE_NOTIFY_CHANGE_LAST_WRITE));
  if (!notification) {
    LogMessage(kGeneralError, L"FindFirstChangeNotification failed: %u\n", ::GetLastError());
  }
  return notification;
}

// Drops the notification for good when it cannot be armed again.
void RearmNotification(UniqueChangeNotification& notification) {
  if (::FindNextChangeNotification(notification.get())) return;
  LogMessage(kGeneralError, L"FindNextChangeNotification failed: %u\n", ::GetLastError());
  notification.reset();
}

DWORD FlushAndGetNextTimeout() {
  const std::int64_t due_seconds = FlushLogFileIfIdle();
  return due_seconds == 0 ? kIdleTimeoutMs : static_cast<DWORD>(due_seconds * 1000);
}

}  // namespace

unsigned __stdcall ConfigWatcherThread(void* context) {
  const auto& thread = *static_cast<const LoggingThreadContext*>(context);
  UniqueChangeNotification notification = WatchDirectory(thread.config.directory);
  DWORD timeout_ms = kIdleTimeoutMs;
  for (;;) {
    const HANDLE events[] = {thread.shutdown_event, thread.write_event, notification.get()};
    switch (::WaitForMultipleObjects(notification ? 3 : 2, events, FALSE, timeout_ms)) {
      case WAIT_OBJECT_0:
        return 0;
      case WAIT_OBJECT_0 + 1:
        timeout_ms = kFlushTimeoutMs;
        break;
      case WAIT_OBJECT_0 + 2:
        ReadConfigFile(thread.config.file.c_str());
        RearmNotification(notification);
        break;
      default:
        timeout_ms = FlushAndGetNextTimeout();
    }
  }
}

}  // namespace zel
