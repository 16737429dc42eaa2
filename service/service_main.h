// The service as the service control manager calls it, or in debug mode its console.
#pragma once

#include <windows.h>

namespace zel {

// The entry given to the dispatcher, which runs it on a thread of its own. Reports the service's
// states, runs ZelServiceStart, and takes the log down at its end.
void WINAPI VelmoraServiceMain(DWORD argument_count, LPWSTR* arguments) noexcept;

// Stops the service on SERVICE_CONTROL_STOP and SERVICE_CONTROL_SHUTDOWN, blocking while it stops;
// ignores every other control. The dispatcher's thread calls it.
void WINAPI ServiceCtrlHandler(DWORD control) noexcept;

// Console control handler: stops the service on Ctrl+C and Ctrl+Break, blocking while it stops, and
// answers TRUE; answers FALSE to every other control. The console calls it on a thread of its own.
BOOL WINAPI ConsoleCtrlHandler(DWORD control_type) noexcept;

// Returns when VelmoraServiceMain has run to its end; at once when it was never entered. The
// dispatcher returns as soon as the stopped state is reported, while the log is still being closed.
void WaitForServiceMainEnd();

}  // namespace zel
