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

// Shared with the user library, which writes down there what became of each message. It outlives a
// service that is killed, so that the driver knows how far the service came.
//   received   the message lies in its reader's buffer, and the reader has been told so
//   processed  its reader (an OVERLAPPED structure of the service) reads again
inline constexpr wchar_t kReceiptsName[] = LR"(Global\VelmoraActivityFilterPort.receipts)";
// A service has as many messages at once as it has readers; the driver reads every receipt before
// it hands over the next message.
inline constexpr std::size_t kMaxReaders = 64;
inline constexpr std::size_t kReceipts = 4 * kMaxReaders;
struct Receipt {
  std::uint64_t message_id;
  bool processed;  // else received
};
struct ReceiptLog {
  std::atomic<std::uint64_t> count;  // on this connection; raised when its receipt is complete
  Receipt receipts[kReceipts];       // the n-th lies at n modulo kReceipts
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

}  // namespace zel::sim
