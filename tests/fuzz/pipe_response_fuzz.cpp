// Any bytes as the answer of an operation with a pipe: every chunk lies within them, in order, and
// an accepted answer is used up.
#include <cstdlib>

#include "client/pipe_response.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::span response(reinterpret_cast<const std::byte*>(data), size);
  const std::byte* behind = response.data();
  std::size_t carried = 0;
  std::uint32_t code = 0;
  const char* const fault = zel::ReadPipeResponse(
      response,
      [&](std::span<const std::byte> chunk) {
        const std::byte* const end = response.data() + size;
        if (chunk.empty() || chunk.data() < behind + 4 || chunk.size() > size) std::abort();
        if (chunk.data() + chunk.size() > end) std::abort();
        behind = chunk.data() + chunk.size();
        carried += chunk.size();
      },
      code);
  if (fault == nullptr && (size < 8 || size % 4 != 0 || carried > size - 8)) std::abort();
  return 0;
}
