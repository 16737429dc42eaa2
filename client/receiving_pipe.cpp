#include "client/receiving_pipe.h"

#include <rpc.h>
#include <windows.h>

#include <algorithm>

namespace zel {

void ReceivingPipe::Alloc(char* state, std::uint32_t size, unsigned char** buffer,
                          std::uint32_t* count) {
  auto& pipe = *reinterpret_cast<ReceivingPipe*>(state);
  *buffer = pipe.buffer_.data();
  *count = std::min<std::uint32_t>(size, kRoom);
}

// Raises where nothing is owned: the exception passes through here and the runtime's frames.
void ReceivingPipe::Push(char* state, unsigned char* buffer, std::uint32_t count) {
  const std::uint32_t code = reinterpret_cast<ReceivingPipe*>(state)->Take({buffer, count});
  if (code != 0) ::RpcRaiseException(static_cast<RPC_STATUS>(code));
}

// The empty push is the pipe's end and nobody's bytes.
std::uint32_t ReceivingPipe::Take(std::span<const unsigned char> bytes) noexcept {
  return bytes.empty() ? 0 : sink_(std::as_bytes(bytes));
}

}  // namespace zel
