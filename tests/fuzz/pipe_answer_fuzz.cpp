// Any bytes as the answer of an operation with a pipe: whatever the room that its taker offers, the
// chunks are those that lie in the bytes, and an accepted answer is used up.
#include <cstdlib>

#include "tests/unit/support/played_pipe.h"

namespace {

// The pipe's bytes; what it answers is in `status`.
std::string Take(std::span<const std::byte> bytes, std::size_t room, std::uint32_t& status) {
  zel::test::PlayedAnswer answer(bytes);
  zel::test::PlayedTaker taker;
  taker.room = room;
  std::uint32_t value = 0;
  status = zel::sim::TakePipe(answer, taker, value);
  if (status == 0 && (!answer.at_end() || !taker.pushes.back().empty())) std::abort();
  std::string taken;
  for (const std::string& push : taker.pushes) taken += push;
  return taken;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::span bytes(reinterpret_cast<const std::byte*>(data), size);
  std::uint32_t status = 0;
  const std::string whole = Take(bytes, size + 1, status);
  if (status == 0 && (size < 8 || size % 4 != 0 || whole.size() > size - 8)) std::abort();
  std::uint32_t status_in_pieces = 0;
  const std::string pieces = Take(bytes, 7, status_in_pieces);
  if (status_in_pieces != status || !pieces.starts_with(whole)) std::abort();
  return 0;
}
