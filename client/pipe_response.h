// The answer of an operation with a pipe, read as plain data. Pure.
//
// Format: chunks of a 32-bit count, aligned to 4, and that many bytes; a count of 0 ends the pipe;
// then the operation's 32-bit code, aligned to 4. Little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace zel {

// Takes the bytes of a pipe, in order, in pieces of any size.
using ByteSink = std::function<void(std::span<const std::byte> bytes)>;

// Hands every chunk of `response` to `sink` and reads the code. Null for success; otherwise what is
// wrong with the response: `code` is unchanged then, and the sink has had the chunks before.
[[nodiscard]] const char* ReadPipeResponse(std::span<const std::byte> response,
                                           const ByteSink& sink, std::uint32_t& code);

}  // namespace zel
