// The driver's answer to the status command. Pure.
//
// Format: docs/driver-protocol.md. All integers little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "files/types.h"

namespace zel {

struct DriverStatus {                       // offset
  std::uint16_t Version[4];                 //  0  major, minor, build, revision
  FileTime StartTime;                       //  8  UTC
  std::uint8_t StartedDuringBoot;           // 16  not 0: yes
  std::uint8_t PreviousShutdownClean;       // 17  not 0: yes
  std::uint8_t OlderDriverLoaded;           // 18  not 0: yes
  std::uint8_t LoadStatus;                  // 19  of the saved messages, see LoadStatusText
  std::uint32_t MessagesLoadedFromDisk;     // 20  at the driver's start
  std::uint64_t MessagesVaulted;            // 24
  std::uint64_t MessagesSentFromVault;      // 32
  std::uint32_t FilesToBeMarkedUnreliable;  // 40
  std::uint32_t reserved_44;                // 44
};

static_assert(sizeof(DriverStatus) == 48);
static_assert(offsetof(DriverStatus, Version) == 0);
static_assert(offsetof(DriverStatus, StartTime) == 8);
static_assert(offsetof(DriverStatus, StartedDuringBoot) == 16);
static_assert(offsetof(DriverStatus, PreviousShutdownClean) == 17);
static_assert(offsetof(DriverStatus, OlderDriverLoaded) == 18);
static_assert(offsetof(DriverStatus, LoadStatus) == 19);
static_assert(offsetof(DriverStatus, MessagesLoadedFromDisk) == 20);
static_assert(offsetof(DriverStatus, MessagesVaulted) == 24);
static_assert(offsetof(DriverStatus, MessagesSentFromVault) == 32);
static_assert(offsetof(DriverStatus, FilesToBeMarkedUnreliable) == 40);

using DriverStatusBytes = std::array<std::byte, sizeof(DriverStatus)>;

// Every value is a status: nothing in it can be wrong.
[[nodiscard]] DriverStatus ParseDriverStatus(
    std::span<const std::byte, sizeof(DriverStatus)> reply);

// How the driver fared with the messages that it had saved: "Loaded" for 2. "<unkown>", spelled so
// since ever, for a code above 10. Static storage.
[[nodiscard]] const char* LoadStatusText(std::uint8_t code);

}  // namespace zel
