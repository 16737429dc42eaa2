// The layouts on the driver's port, as the driver states them. Test bench only; never installed.
//
// Stated here by hand and not taken from the product, so that a mistake in a layout shows up as a
// difference between the two sides. Pure. Little-endian, which both sides are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "files/types.h"

namespace zel::sim {

using Bytes = std::vector<std::byte>;

inline constexpr std::uint32_t kMagic = 0x092ABB38;

enum class MessageType : std::uint16_t {
  kWrite = 0x038B,
  kSync = 0x04A9,
  kVerify = 0x04AA,
  kOpened = 0x0714,
  kClosed = 0x0A1B,
  kSizeChanged = 0x0CD6,
  kRenamed = 0x0F00,
};

// A message from the driver, behind the filter manager's header.
struct EventMessage {               // offset
  std::uint32_t reply_length;       //  0  header: 0, no reply is waited for
  std::uint32_t header_padding;     //  4
  std::uint64_t message_id;         //  8  header
  std::uint32_t magic;              // 16  kMagic
  MessageType type;                 // 20
  std::uint8_t unreported_changes;  // 22  1: changes of this file were lost
  std::uint8_t reserved_at_23;      // 23
  std::uint32_t process_id;         // 24  who performed the operation
  std::uint32_t reserved_at_28;     // 28
  FileTime timestamp;               // 32
  FileId file_id;                   // 40
  VolumeGuid volume;                // 48
  std::uint64_t offset_or_size;     // 64  write: first byte; size change: new size
  std::uint32_t length;             // 72  write: bytes
  std::uint32_t reserved_at_76;     // 76
};
static_assert(sizeof(EventMessage) == 80 && offsetof(EventMessage, magic) == 16 &&
              offsetof(EventMessage, type) == 20 && offsetof(EventMessage, process_id) == 24 &&
              offsetof(EventMessage, timestamp) == 32 && offsetof(EventMessage, file_id) == 40 &&
              offsetof(EventMessage, volume) == 48 && offsetof(EventMessage, length) == 72);

// A command to the driver: the code in the first of 64 bytes, zeros behind it.
enum class CommandCode : std::uint8_t { kListChanged = 0, kSync = 1, kStatus = 2 };
inline constexpr std::size_t kCommandBytes = 64;

// The driver's answer to kStatus.
struct StatusReply {                     // offset
  std::uint16_t version[4];              //  0  major, minor, build, revision
  FileTime start_time;                   //  8
  std::uint8_t started_during_boot;      // 16
  std::uint8_t previous_shutdown_clean;  // 17
  std::uint8_t older_driver_loaded;      // 18
  std::uint8_t load_status;              // 19  of the messages saved by the run before
  std::uint32_t messages_loaded;         // 20
  std::uint64_t messages_vaulted;        // 24  queued while no service was connected
  std::uint64_t messages_from_vault;     // 32  of those, handed over later
  std::uint32_t files_pending;           // 40  files with lost changes that no message has told
  std::uint32_t reserved_at_44;          // 44
};
static_assert(sizeof(StatusReply) == 48 && offsetof(StatusReply, start_time) == 8 &&
              offsetof(StatusReply, load_status) == 19 &&
              offsetof(StatusReply, messages_vaulted) == 24 &&
              offsetof(StatusReply, files_pending) == 40);

// What the simulated driver says of its saved messages: it saves none.
inline constexpr std::uint8_t kLoadStatusDoesNotExist = 3;

// The id in the header of a message that was transferred whole; 0 when it does not reach that far.
[[nodiscard]] inline std::uint64_t MessageIdOf(const void* message, std::size_t size) {
  std::uint64_t id = 0;
  if (size < offsetof(EventMessage, magic)) return 0;
  std::memcpy(&id, static_cast<const std::byte*>(message) + offsetof(EventMessage, message_id),
              sizeof id);
  return id;
}

template <class Layout>
[[nodiscard]] Bytes ToBytes(const Layout& layout) {
  static_assert(std::is_trivially_copyable_v<Layout>);
  Bytes bytes(sizeof layout);
  std::memcpy(bytes.data(), &layout, sizeof layout);
  return bytes;
}

}  // namespace zel::sim
