#include "rpc/pipe_writer.h"

#include <algorithm>

#include "win32/rpc_exception.h"

namespace zel {

void PipeWriter::Push(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const auto chunk = bytes.first(std::min(bytes.size(), kMaxChunk));
    PushChunk(chunk);
    bytes = bytes.subspan(chunk.size());
  }
}

void PipeWriter::End() {
  PushChunk({});
}

void PipeWriter::PushChunk(std::span<const std::byte> chunk) {
  if (exception_ != 0) return;
  // The pipe takes its bytes through a pointer that could be written through; it only reads.
  auto* const bytes =
      const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(chunk.data()));
  const auto count = static_cast<std::uint32_t>(chunk.size());
  exception_ = CatchRpcException([&] { pipe_.push(pipe_.state, bytes, count); });
}

}  // namespace zel
