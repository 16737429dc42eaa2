// How a remote procedure with an [out] pipe is described, called and answered. Test bench only.
// Pure.
//
// Covers what the service's interface has: an explicit primitive binding handle, [in] parameters
// of base types, one [out] pipe of bytes, a 32-bit return value.
// Format: the Oicf procedure and type descriptions; NDR, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zel::sim {

// What every routine is called with; it looks at as many as it has parameters.
inline constexpr std::size_t kMaxSlots = 12;
using Slots = std::uint64_t[kMaxSlots];

struct PipeProcedure {
  struct Input {
    std::size_t slot;
    std::size_t size;  // in bytes, on the wire aligned to itself
  };
  std::size_t handle_slot;
  std::size_t pipe_slot;
  std::vector<Input> inputs;  // in the order of the wire
};

// Whether the engine is to treat the procedure at `description` as one with pipes.
[[nodiscard]] bool HasPipes(const unsigned char* description);

// Reads the description of operation `number`, whose type offsets count from `types`. Nothing when
// it contradicts itself or says something that is not covered.
[[nodiscard]] std::optional<PipeProcedure> ReadPipeProcedure(const unsigned char* description,
                                                             const unsigned char* types,
                                                             unsigned number);

// The operation's number in its description, and how many slots its parameters take, the binding
// handle's included and the return value's not.
[[nodiscard]] unsigned OperationNumber(const unsigned char* description);
[[nodiscard]] std::size_t CountSlots(const unsigned char* description);

// Puts the request's values into their slots; false when the request is too short for them.
[[nodiscard]] bool ReadInputs(const PipeProcedure& procedure, std::span<const std::byte> request,
                              Slots& slots);

// The request that the slots' values make.
[[nodiscard]] std::vector<std::byte> WriteInputs(const PipeProcedure& procedure,
                                                 const Slots& slots);

// The response as it grows: a chunk for every push, the empty chunk that ends the pipe, the return
// value.
class PipeResponse {
 public:
  // Adds a chunk, an empty one to end the pipe. False when it has ended before.
  [[nodiscard]] bool Push(std::span<const std::byte> chunk);
  [[nodiscard]] bool ended() const { return ended_; }
  // Adds the return value. The pipe has ended.
  void Return(std::uint32_t value) { Append(value); }
  [[nodiscard]] const std::vector<std::byte>& bytes() const { return bytes_; }

 private:
  void Append(std::uint32_t value);

  std::vector<std::byte> bytes_;
  bool ended_ = false;
};

}  // namespace zel::sim
