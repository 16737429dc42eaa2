#include "config/config_file.h"

#include <share.h>
#include <stdio.h>

#include <memory>
#include <optional>
#include <string>

#include "config/config_parser.h"
#include "config/settings.h"
#include "logging/log_file.h"
#include "logging/log_message.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr DWORD kIdleTimeoutMs = 60 * 1000;  // nothing waits for a flush
constexpr DWORD kFlushTimeoutMs = 3 * 1000;  // from a line to the first look whether it is idle

struct StreamCloser {
  void operator()(FILE* stream) const noexcept { std::fclose(stream); }
};

// The whole text, line ends as "\n". An editor may go on writing while it is read: the change
// notification that follows reads it again.
std::optional<std::string> ReadTextFile(const wchar_t* path) {
  const std::unique_ptr<FILE, StreamCloser> stream(::_wfsopen(path, L"r", _SH_DENYNO));
  if (!stream) return std::nullopt;
  std::string text;
  char chunk[4096];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, stream.get())) {
    text.append(chunk, got);
  }
  if (std::ferror(stream.get()) != 0) return std::nullopt;
  return text;
}

void ApplyRpcCallers(std::optional<CallerPolicy> configured) {
  const CallerPolicy old = RpcCallers;
  if (!configured || *configured == old) return;
  LogMessage(kGeneralInfo, L"Changing RPC callers from %s to %s\n", WordOf(old),
             WordOf(*configured));
  RpcCallers = *configured;
}

void ApplyConfigFile(const std::wstring& path) {
  const std::optional<std::string> text = ReadTextFile(path.c_str());
  if (!text) return;
  const Configuration configuration = ParseConfiguration(*text);
  LogEnableMask = ComputeLogEnableMask(configuration.levels);

  const std::int64_t old_idle = BitmapIdleTimeout;
  if (configuration.bitmap_idle_timeout != old_idle) {
    LogMessage(kGeneralInfo, L"Changing bitmap idle timeout from %I64d to %I64d seconds\n",
               old_idle, configuration.bitmap_idle_timeout);
    BitmapIdleTimeout = configuration.bitmap_idle_timeout;
  }
  const std::int64_t old_sync = SyncTimeout;
  if (configuration.sync_timeout != old_sync) {
    LogMessage(kGeneralInfo, L"Changing sync timeout from %I64d to %I64d seconds\n", old_sync,
               configuration.sync_timeout);
    SyncTimeout = configuration.sync_timeout;
  }
  ApplyRpcCallers(configuration.rpc_callers);
  if (void (*const applied)() = OnConfigurationApplied) applied();
}

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

void ReadConfiguration(std::wstring_view log_path) {
  ApplyConfigFile(DeriveConfigPaths(log_path).file);
}

void WatchConfiguration(const LogWatch& log) {
  const ConfigPaths paths = DeriveConfigPaths(log.log_path);
  UniqueChangeNotification notification = WatchDirectory(paths.directory);
  // What was written since the first read, while nothing watched.
  if (notification) ApplyConfigFile(paths.file);
  DWORD timeout_ms = kIdleTimeoutMs;
  for (;;) {
    const HANDLE events[] = {log.shutdown_event, log.write_event, notification.get()};
    switch (::WaitForMultipleObjects(notification ? 3 : 2, events, FALSE, timeout_ms)) {
      case WAIT_OBJECT_0:
        return;
      case WAIT_OBJECT_0 + 1:
        timeout_ms = kFlushTimeoutMs;
        break;
      case WAIT_OBJECT_0 + 2:
        ApplyConfigFile(paths.file);
        RearmNotification(notification);
        break;
      default:
        timeout_ms = FlushAndGetNextTimeout();
    }
  }
}

}  // namespace zel
