// The names under which the simulated driver and its users find each other. Test bench only.
#pragma once

#include <atomic>
#include <cstdint>

namespace zel::sim {

// The port is a pipe of messages without a buffer: a write to it ends when a read takes it. The
// first message of a connection is one byte, the greeting; the driver knows of the connection then.
inline constexpr wchar_t kPipePrefix[] = LR"(\\.\pipe)";
inline constexpr wchar_t kPortName[] = LR"(\VelmoraActivityFilterPort)";
inline constexpr wchar_t kPortPipe[] = LR"(\\.\pipe\VelmoraActivityFilterPort)";

// Orders, one message a line, and their answers.
inline constexpr wchar_t kControlPipe[] = LR"(\\.\pipe\VelmoraActivityMonitor.control)";
inline constexpr std::uint32_t kMaxLineBytes = 256 * 1024;

// Shared with the user library: for every reader of the port (an OVERLAPPED structure of the
// service) the number of its newest read. A reader that reads again has processed the message
// before; so what was handed over and is the newest read of somebody may be lost with the service.
inline constexpr wchar_t kReadTableName[] = LR"(Global\VelmoraActivityFilterPort.reads)";
inline constexpr std::size_t kMaxReaders = 64;
struct ReadTable {
  std::atomic<std::uint64_t> newest[kMaxReaders];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

}  // namespace zel::sim
