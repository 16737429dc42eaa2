// The two threads of the log: the roller and the configuration watcher. Inside logging/.
#pragma once

#include <windows.h>

#include "logging/log_paths.h"

namespace zel {

// What both threads need, borrowed for their whole life.
struct LoggingThreadContext {
  HANDLE shutdown_event;  // manual reset: ends both threads
  HANDLE roll_event;      // auto reset: check the log's size now
  HANDLE write_event;     // auto reset: lines wait for a flush
  ConfigPaths config;
};

// Thread procedures for _beginthreadex; `context` is a LoggingThreadContext. Both return 0.

// Rolls the log when it is too large: at start, on roll_event, and every 30 minutes.
unsigned __stdcall LogRollerThread(void* context);

// Reads the configuration again whenever a file in its directory is written, and flushes the log
// when it has been idle for 3 seconds.
unsigned __stdcall ConfigWatcherThread(void* context);

}  // namespace zel
