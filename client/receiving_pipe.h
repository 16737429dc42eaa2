// The client's end of an [out] pipe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "rpc/zel_interface.h"

namespace zel {

// Takes the bytes of a pipe, in order, in pieces of any size. Whoever answers another code than 0
// gets no more: the call ends with that code as its RPC status.
using ByteSink = std::function<std::uint32_t(std::span<const std::byte> bytes)>;

// Offers the RPC runtime one buffer, again and again, and hands what was put there to a sink: a
// pipe of any length takes the memory of the buffer.
// Threads: the one that makes the call.
// Lifetime: longer than the call; borrows the sink.
class ReceivingPipe {
 public:
  static constexpr std::size_t kRoom = 65'536;

  explicit ReceivingPipe(const ByteSink& sink) : sink_(sink), buffer_(kRoom) {}
  ReceivingPipe(const ReceivingPipe&) = delete;
  ReceivingPipe& operator=(const ReceivingPipe&) = delete;

  // What the operation takes.
  [[nodiscard]] wire::BytePipe* get() { return &pipe_; }

 private:
  static void Alloc(char* state, std::uint32_t size, unsigned char** buffer, std::uint32_t* count);
  static void Push(char* state, unsigned char* buffer, std::uint32_t count);
  std::uint32_t Take(std::span<const unsigned char> bytes) noexcept;

  const ByteSink& sink_;
  std::vector<unsigned char> buffer_;
  wire::BytePipe pipe_ = {nullptr, Push, Alloc, reinterpret_cast<char*>(this)};
};

}  // namespace zel
