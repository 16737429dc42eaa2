// Installing and removing this service, and the driver's service beside it.
//
// The driver's own installer makes the driver's service; here only its start type is set, and it is
// started and removed.
// Errors: each failure is logged where it arises, and the operation goes on as far as it can.
#pragma once

#include <cstdint>

namespace zel {

// Registers this program as the auto-start service and makes the driver start with the system.
void InstallService();

// Stops the service, if it runs, and removes it, then the driver's service.
void RemoveService();

// Removes the driver's service. It is not stopped: the entry goes when the driver is unloaded.
void RemoveDriverService();

// Starts the driver's service without waiting until it runs. 0, also when it runs already, or the
// code that was logged.
[[nodiscard]] std::uint32_t VelmoraStartDriver();

}  // namespace zel
