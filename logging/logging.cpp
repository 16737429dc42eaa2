#include "logging/logging.h"

#include <string>

#include "logging/log_file.h"
#include "logging/log_message.h"
#include "win32/handles.h"
#include "win32/thread.h"

namespace zel {

namespace {

// The mask until a configuration has been read: General Trace to Warn.
constexpr std::uint32_t kMaskWithoutConfiguration = 15;

constexpr DWORD kThreadEndTimeoutMs = 60 * 1000;

// Reached only from InitLogging and ShutdownLogging; never destroyed, because the threads may
// outlive a failed wait.
struct LoggingThreads {
  UniqueEvent shutdown_event;
  UniqueEvent roll_event;
  UniqueEvent write_event;
  std::wstring log_path;
  LogConfiguration configuration;
  UniqueThread roller;
  UniqueThread watcher;
};
LoggingThreads* threads = nullptr;

// Rolls the log when it is too large: at the start, on roll_event, and every 30 minutes. A log that
// is closed is tried again more often: whoever kept it from being opened, such as the process
// before this one, may soon be gone.
unsigned __stdcall LogRollerThread(void*) noexcept {
  constexpr DWORD kCheckIntervalMs = 30 * 60 * 1000;
  constexpr DWORD kReopenIntervalMs = 3 * 1000;
  const HANDLE events[] = {threads->shutdown_event.get(), threads->roll_event.get()};
  DWORD wait_ms = 0;
  do {
    RollLogFileIfLarge();
    wait_ms = ReopenLogFile() ? kCheckIntervalMs : kReopenIntervalMs;
  } while (::WaitForMultipleObjects(2, events, FALSE, wait_ms) != WAIT_OBJECT_0);
  return 0;
}

unsigned __stdcall ConfigWatcherThread(void*) noexcept {
  threads->configuration.watch(
      {threads->log_path, threads->shutdown_event.get(), threads->write_event.get()});
  return 0;
}

void CreateEvents(LoggingThreads& created) {
  created.shutdown_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  created.roll_event.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  created.write_event.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
}

}  // namespace

void InitLogging(std::wstring_view log_path, const LogConfiguration& configuration) {
  LogEnableMask = kMaskWithoutConfiguration;
  configuration.read(log_path);
  OpenLogFile(log_path);

  threads = new LoggingThreads;
  CreateEvents(*threads);
  SetLogEvents(threads->write_event.get(), threads->roll_event.get());
  threads->log_path = log_path;
  threads->configuration = configuration;
  threads->roller = StartThread(LogRollerThread);
  threads->watcher = StartThread(ConfigWatcherThread);
}

void ShutdownLogging() {
  if (threads != nullptr) {
    ::SetEvent(threads->shutdown_event.get());
    ::WaitForSingleObject(threads->roller.get(), kThreadEndTimeoutMs);
    ::WaitForSingleObject(threads->watcher.get(), kThreadEndTimeoutMs);
    SetLogEvents(nullptr, nullptr);
    threads->write_event.reset();
    threads->roll_event.reset();
    threads->shutdown_event.reset();
    threads->roller.reset();
    threads->watcher.reset();
  }
  CloseLogFile();
}

}  // namespace zel
