// Reporting the service's state to the service control manager.
//
// Threads: DebugMode is set before any other thread runs and read from any; the functions belong to
// the thread that runs the service's start and end.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace zel {

// Whether the program runs in a console instead of under the service control manager. Set once by
// the program entry, never cleared.
inline constinit std::atomic<bool> DebugMode{false};

// Makes `handle`, from RegisterServiceCtrlHandler, the one that reports go to. Borrowed for the
// life of the process (such a handle is never closed). Called once, before the first report.
void SetServiceStatusHandle(SERVICE_STATUS_HANDLE handle);

// Reports `state` (SERVICE_RUNNING and so on) with its Win32 exit code and the milliseconds in
// which the next report can be expected. The first SERVICE_STOPPED is the last report of all: what
// follows it is not sent, so its exit code stands. Does nothing and answers true then and in
// DebugMode. False when the manager refuses the report, which has then been logged.
bool ReportServiceStatus(std::uint32_t state, std::uint32_t win32_exit_code,
                         std::uint32_t wait_hint_ms);

}  // namespace zel
