#include "client/pipe_response.h"

#include "client/byte_reader.h"

namespace zel {

const char* ReadPipeResponse(std::span<const std::byte> response, const ByteSink& sink,
                             std::uint32_t& code) {
  ByteReader reader(response);
  for (;;) {
    std::uint32_t count = 0;
    if (!reader.Align(4) || !reader.Read(count)) return "the pipe has no end";
    if (count == 0) break;
    std::span<const std::byte> chunk;
    if (!reader.Take(count, chunk)) return "a chunk is longer than the response";
    sink(chunk);
  }
  std::uint32_t read_code = 0;
  if (!reader.Read(read_code)) return "the code behind the pipe is missing";
  if (!reader.at_end()) return "there is more behind the code";
  code = read_code;
  return nullptr;
}

}  // namespace zel
