// A command to the driver: 64 bytes, the code in the first and zeros behind it. Pure.
//
// Format: docs/driver-protocol.md.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel {

enum class DriverCommand : std::uint8_t {
  kTrackingListChanged = 0,  // the registry's list of tracked files is to be read again
  kSyncMessageQueue = 1,     // answered by a queue sync message behind all that is queued
  kQueryStatus = 2,          // answered with a DriverStatus (driver/driver_status.h)
};

using DriverCommandBytes = std::array<std::byte, 64>;

[[nodiscard]] constexpr DriverCommandBytes MakeDriverCommand(DriverCommand command) {
  DriverCommandBytes bytes = {};
  bytes[0] = static_cast<std::byte>(command);
  return bytes;
}

}  // namespace zel
