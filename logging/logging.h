// Setting the log up at the start of the service and taking it down at its end.
#pragma once

#include <windows.h>

#include <string_view>

namespace zel {

// What the log lends to whoever watches its configuration, for as long as the watch runs.
struct LogWatch {
  std::wstring_view log_path;
  HANDLE shutdown_event;  // manual reset: ends the watch
  HANDLE write_event;     // auto reset: lines wait for a flush (FlushLogFileIfIdle)
};

// The configuration of the log, which lies above it: config/ fills this in.
struct LogConfiguration {
  void (*read)(std::wstring_view log_path);  // sets LogEnableMask
  void (*watch)(const LogWatch& log);        // on a thread of its own; also flushes an idle log
};

// Reads the configuration, opens the log at `log_path` (cut at 259 characters) and starts the
// roller and the watcher. What is logged meanwhile goes to standard output. Called once, before
// any other thread runs. No failure is reported: a log that cannot be opened leaves standard output
// until the roller can open it, a missing configuration the built-in mask.
void InitLogging(std::wstring_view log_path, const LogConfiguration& configuration);

// Ends both threads (waiting up to 60 s for each) and closes the log; later lines go to standard
// output. Called once, by the thread that ends the service; harmless without InitLogging.
void ShutdownLogging();

}  // namespace zel
