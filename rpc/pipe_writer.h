// The server's end of an [out] pipe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "rpc/zel_interface.h"

namespace zel {

// Pushes bytes into a pipe and ends it. A client that goes away makes a push raise an RPC
// exception; it is kept, nothing is pushed from then on, and the caller raises it again once it
// owns nothing.
class PipeWriter {
 public:
  static constexpr std::size_t kMaxChunk = 65'536;

  explicit PipeWriter(wire::BytePipe& pipe) : pipe_(pipe) {}
  PipeWriter(const PipeWriter&) = delete;
  PipeWriter& operator=(const PipeWriter&) = delete;

  // Pushes `bytes` in chunks of at most kMaxChunk. Nothing for no bytes: that would end the pipe.
  void Push(std::span<const std::byte> bytes);

  // The empty push, owed on every way out of a procedure.
  void End();

  // The RPC exception of the first push that failed; 0 while none has.
  [[nodiscard]] std::uint32_t exception() const { return exception_; }

 private:
  void PushChunk(std::span<const std::byte> chunk);

  wire::BytePipe& pipe_;
  std::uint32_t exception_ = 0;
};

}  // namespace zel
