// The driver's two ends of pipes: the port and the control channel. Test bench only.
#pragma once

#include <windows.h>

#include "simulator/driver.h"

namespace zel::sim {

// The port, which exists from here on; null, with a last error, when another driver runs.
[[nodiscard]] UniqueFile MakePort();

// Hands messages over to whoever is connected to `port`, until `driver` is told to stop.
void RunPort(Driver& driver, const UniqueFile& port);

// Starts the threads that obey the control channel; they end with the process. Returns when the
// channel can be connected to; the Win32 error when there can be none.
[[nodiscard]] DWORD StartControlChannel(Driver& driver);

}  // namespace zel::sim
