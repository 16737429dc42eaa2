// Where a reader receives its messages, and what a process that died with a message in hand leaves
// to the next one. Pure.
//
//     empty --PrepareForRead--> receiving, no message
//       ^                           | the system puts a message there: from that moment on it is in
//       |                           v the slot, whether the reader has seen it or not
//       '------MarkEmpty------- receiving, a message
//
// Format: docs/file-format.md. A file of kMessageThreads slots; all integers little-endian.
// Threads: a slot belongs to its reader.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "driver/driver_protocol.h"
#include "driver/reader_barrier.h"

namespace zel {

inline constexpr std::uint32_t kReceiveSlotMagic = 0x6D4C455A;  // the bytes "ZELm"
inline constexpr std::uint32_t kReceiveSlotVersion = 1;
inline constexpr std::size_t kReceiveBufferBytes = 65'536;

enum class ReceiveSlotState : std::uint32_t { kEmpty = 0, kReceiving = 1 };

struct alignas(64) ReceiveSlot {           // offset
  std::uint32_t Magic;                     //  0
  std::uint32_t Version;                   //  4
  ReceiveSlotState State;                  //  8
  std::uint32_t ProcessId;                 // 12  of the process whose reader this is
  FileTime ProcessStart;                   // 16  when it began; all ones: unknown
  std::uint8_t reserved_24[40];            // 24
  std::byte Message[kReceiveBufferBytes];  // 64  as the port delivers it
  std::byte unused[4096 - 64];             // the next slot begins with a page of its own
};

static_assert(sizeof(ReceiveSlot) == 17 * 4096);
static_assert(offsetof(ReceiveSlot, State) == 8);
static_assert(offsetof(ReceiveSlot, ProcessStart) == 16);
static_assert(offsetof(ReceiveSlot, Message) == 64);

inline constexpr std::size_t kReceiveSlotsBytes = kMessageThreads * sizeof(ReceiveSlot);

// Makes the slot an empty one of a reader of `process`.
void ClaimSlot(ReceiveSlot& slot, const ProcessIdentity& process);

// Before each read. Clears as much of the message as is ever looked at, not all 64 KiB.
void PrepareForRead(ReceiveSlot& slot);

// When what the message tells is recorded, or the read is over without one.
void MarkEmpty(ReceiveSlot& slot);

// Whether there is a message since PrepareForRead.
[[nodiscard]] bool HoldsMessage(const ReceiveSlot& slot);

// A message that was in hand, and the process that had received it. Nothing is that process's own
// operation when the slot does not tell who it was.
struct LeftMessage {
  ProcessIdentity receiver;
  std::array<std::byte, sizeof(DriverMessage)> bytes;
};

// What a file of slots tells, whatever its bytes are and however many.
struct LeftMessages {
  std::vector<LeftMessage> messages;  // at most kMessageThreads
  bool one_is_unreadable = false;     // a slot that holds something which is no message
  bool is_damaged = false;            // what stands in the place of some slot is none
};
[[nodiscard]] LeftMessages FindLeftMessages(std::span<const std::byte> file);

}  // namespace zel
