// The answer of a procedure with an [out] pipe, taken in as it arrives. Test bench only. Pure.
//
// Format: chunks of a 32-bit count, aligned to 4, and that many bytes; a count of 0 ends the pipe;
// then the 32-bit return value, aligned to 4. Little-endian.
// Errors: RPC statuses, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zel::sim {

// The bytes of an answer, wherever they come from.
class AnswerBytes {
 public:
  virtual ~AnswerBytes() = default;
  // Fills the whole buffer with what comes next; RPC_X_BAD_STUB_DATA where the answer ends before.
  [[nodiscard]] virtual std::uint32_t Read(std::span<std::byte> buffer) = 0;
  [[nodiscard]] virtual bool at_end() = 0;
};

// The client's routines of a pipe.
class PipeTaker {
 public:
  virtual ~PipeTaker() = default;
  // Room for some of the `wanted` bytes.
  [[nodiscard]] virtual std::uint32_t Alloc(std::uint32_t wanted, std::span<std::byte>& room) = 0;
  // Takes what was put into the room; no bytes for the pipe's end.
  [[nodiscard]] virtual std::uint32_t Push(std::span<std::byte> bytes) = 0;
};

inline constexpr std::uint32_t kBadStubData = 1783;    // RPC_X_BAD_STUB_DATA
inline constexpr std::uint32_t kInvalidBuffer = 1784;  // ERROR_INVALID_USER_BUFFER

// Hands every chunk to `taker` in pieces of the room that it offers, then the pipe's end, and reads
// the return value. A taker without room is ERROR_INVALID_USER_BUFFER.
[[nodiscard]] std::uint32_t TakePipe(AnswerBytes& answer, PipeTaker& taker,
                                     std::uint32_t& return_value);

}  // namespace zel::sim
