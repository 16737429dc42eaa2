#include "logging/logging.h"

#include <process.h>

#include "logging/config_file.h"
#include "logging/log_file.h"
#include "logging/log_message.h"
#include "logging/logging_threads.h"
#include "win32/handles.h"

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
  LoggingThreadContext context;
  UniqueThread roller;
  UniqueThread watcher;
};
LoggingThreads* threads = nullptr;

UniqueThread StartThread(unsigned(__stdcall* procedure)(void*), LoggingThreadContext& context) {
  return UniqueThread(
      reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, 0, procedure, &context, 0, nullptr)));
}

void CreateEvents(LoggingThreads& created) {
  created.shutdown_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  created.roll_event.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  created.write_event.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
}

}  // namespace

void InitLogging(std::wstring_view log_path) {
  ConfigPaths config = DeriveConfigPaths(log_path);
  LogEnableMask = kMaskWithoutConfiguration;
  ReadConfigFile(config.file.c_str());
  OpenLogFile(log_path);

  threads = new LoggingThreads;
  CreateEvents(*threads);
  SetLogEvents(threads->write_event.get(), threads->roll_event.get());
  threads->context = {threads->shutdown_event.get(), threads->roll_event.get(),
                      threads->write_event.get(), std::move(config)};
  threads->roller = StartThread(LogRollerThread, threads->context);
  threads->watcher = StartThread(ConfigWatcherThread, threads->context);
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
