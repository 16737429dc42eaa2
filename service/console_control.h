// Stopping the service from its console, in debug mode.
#pragma once

#include <windows.h>

namespace zel {

// Console control handler: stops the service on Ctrl+C and Ctrl+Break, blocking while it stops, and
// answers TRUE; answers FALSE to every other control. The console calls it on a thread of its own.
BOOL WINAPI ConsoleCtrlHandler(DWORD control_type);

}  // namespace zel
