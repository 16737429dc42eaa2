// What the driver and the service say to each other over the filter port: event messages, commands
// and the answer to the status command. Pure.
//
// Format: docs/driver-protocol.md. All integers little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "files/types.h"

namespace zel {

// --- Event messages

inline constexpr std::uint32_t kDriverMessageMagic = 0x092ABB38;

enum class DriverMessageType : std::uint16_t {
  kWrite = 0x038B,
  kQueueSync = 0x04A9,  // everything queued before the sync command has been sent
  kVerify = 0x04AA,     // the driver saw the verify control code on a tracked file
  kOpened = 0x0714,
  kClosed = 0x0A1B,
  kSizeChanged = 0x0CD6,
  kRenamed = 0x0F00,
};

struct DriverMessage {             // offset
  std::uint32_t ReplyLength;       //  0  of the filter manager: not 0 when a reply would be taken
  std::uint32_t reserved_4;        //  4
  std::uint64_t MessageId;         //  8  of the filter manager
  std::uint32_t Magic;             // 16
  DriverMessageType Type;          // 20  may be none of the known ones
  std::uint8_t UnreportedChanges;  // 22  not 0: changes of this file may be missing
  std::uint8_t reserved_23;        // 23
  std::uint32_t ProcessId;         // 24  whose operation it was
  std::uint32_t reserved_28;       // 28
  FileTime Timestamp;              // 32  of the event, by the driver's clock
  zel::FileId FileId;              // 40
  zel::VolumeGuid VolumeGuid;      // 48
  std::uint64_t OffsetOrSize;      // 64  of a write: its first byte; of a size change: the new size
  std::uint32_t Length;            // 72  of a write: bytes
  std::uint32_t reserved_76;       // 76
};

static_assert(sizeof(DriverMessage) == 80);
static_assert(offsetof(DriverMessage, ReplyLength) == 0);
static_assert(offsetof(DriverMessage, MessageId) == 8);
static_assert(offsetof(DriverMessage, Magic) == 16);
static_assert(offsetof(DriverMessage, Type) == 20);
static_assert(offsetof(DriverMessage, UnreportedChanges) == 22);
static_assert(offsetof(DriverMessage, ProcessId) == 24);
static_assert(offsetof(DriverMessage, Timestamp) == 32);
static_assert(offsetof(DriverMessage, FileId) == 40);
static_assert(offsetof(DriverMessage, VolumeGuid) == 48);
static_assert(offsetof(DriverMessage, OffsetOrSize) == 64);
static_assert(offsetof(DriverMessage, Length) == 72);

enum class DriverMessageFault { kNone, kTooSmall, kWrongMagic };

// Copies the message out of the bytes that were transferred, at any address; what a short one lacks
// reads as 0, and what follows the first 80 bytes is not looked at. `message` is filled in either
// case: a faulty one still tells its ReplyLength and its Magic.
[[nodiscard]] DriverMessageFault ParseDriverMessage(std::span<const std::byte> transferred,
                                                    DriverMessage& message);

// A process, told from those that have its id before and after it.
struct ProcessIdentity {
  std::uint32_t id = 0;
  FileTime start = ~FileTime{0};  // what happened until then was another's; all ones: unknown
};

// Whether the message tells of something that `process` did.
[[nodiscard]] constexpr bool IsOperationOf(const ProcessIdentity& process,
                                           const DriverMessage& message) {
  return message.ProcessId == process.id && message.Timestamp > process.start;
}

// --- Commands

enum class DriverCommand : std::uint8_t {
  kTrackingListChanged = 0,  // the registry's list of tracked files is to be read again
  kSyncMessageQueue = 1,     // answered by a queue sync message after all that is queued
  kQueryStatus = 2,          // answered with a DriverStatus
};

// What goes through the port either way lies at a multiple of 8, as the filter manager's own
// structures do.
template <std::size_t kSize>
struct alignas(8) PortBuffer : std::array<std::byte, kSize> {};

// The code in the first byte and zeros after it.
using DriverCommandBytes = PortBuffer<64>;

[[nodiscard]] constexpr DriverCommandBytes MakeDriverCommand(DriverCommand command) {
  DriverCommandBytes bytes = {};
  bytes[0] = static_cast<std::byte>(command);
  return bytes;
}

// --- The answer to kQueryStatus

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

using DriverStatusBytes = PortBuffer<sizeof(DriverStatus)>;

// Every value is a status: nothing in it can be wrong.
[[nodiscard]] DriverStatus ParseDriverStatus(
    std::span<const std::byte, sizeof(DriverStatus)> reply);

// How the driver fared with the messages that it had saved: "Loaded" for 2. "<unkown>", spelled so
// since ever, for a code above 10. Static storage.
[[nodiscard]] const char* LoadStatusText(std::uint8_t code);

}  // namespace zel
