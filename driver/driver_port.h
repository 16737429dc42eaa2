// The connection to the driver, and what is sent over it.
//
// Threads: any thread. Whoever uses the port shares it: a send that is under way keeps it open over
// CloseDriverPort.
#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>
#include <span>

#include "driver/driver_protocol.h"
#include "win32/handles.h"

namespace zel {

using DriverPort = std::shared_ptr<const UniqueFile>;

// Opens the port. The result of the system's call; a failure is logged. Not while it is connected.
[[nodiscard]] HRESULT ConnectDriverPort();

[[nodiscard]] bool DriverPortConnected();

// The open port, or null.
[[nodiscard]] DriverPort CurrentDriverPort();

void CloseDriverPort();

// Sends a command and takes the driver's answer to it, as far as `reply` has room. 0, or the result
// of the system's call, which has then been logged; without a port the one of an invalid handle.
[[nodiscard]] HRESULT SendDriverCommand(DriverCommand command, std::span<std::byte> reply = {});

// Tells the driver that the list of tracked files in the registry has changed. As
// SendDriverCommand.
HRESULT NotifyDriverOfTrackingChanges();

}  // namespace zel
