// The driver's two ends of pipes: the port and the control channel. Test bench only.
#pragma once

#include <windows.h>

#include "simulator/driver.h"

namespace zel::sim {

// Hands messages over to whoever is connected to the port, until `driver` is told to stop.
// The Win32 error when there can be no port: another driver runs.
[[nodiscard]] DWORD RunPort(Driver& driver);

// Starts the threads that obey the control channel; they end with the process. Returns when the
// channel can be connected to; the Win32 error when there can be none.
[[nodiscard]] DWORD StartControlChannel(Driver& driver);

}  // namespace zel::sim
