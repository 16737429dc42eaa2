#include "simulator/fltlib/pipe_answer.h"

#include <algorithm>

namespace zel::sim {

namespace {

// Reads values that are aligned to their size from the answer's first byte on.
class AlignedReader {
 public:
  explicit AlignedReader(AnswerBytes& answer) : answer_(answer) {}

  std::uint32_t Read(std::span<std::byte> buffer) {
    at_ += buffer.size();
    return answer_.Read(buffer);
  }
  std::uint32_t Read(std::uint32_t& value) {
    std::byte padding[sizeof value];
    const std::size_t skipped = (sizeof value - at_ % sizeof value) % sizeof value;
    const std::uint32_t status = Read(std::span(padding).first(skipped));
    return status != 0 ? status : Read(std::as_writable_bytes(std::span(&value, 1)));
  }

 private:
  AnswerBytes& answer_;
  std::uint64_t at_ = 0;
};

std::uint32_t TakeChunk(AlignedReader& reader, PipeTaker& taker, std::uint32_t count) {
  while (count > 0) {
    std::span<std::byte> room;
    std::uint32_t status = taker.Alloc(count, room);
    if (status == 0 && room.empty()) status = kInvalidBuffer;
    if (status != 0) return status;
    room = room.first(std::min<std::size_t>(room.size(), count));
    status = reader.Read(room);
    if (status == 0) status = taker.Push(room);
    if (status != 0) return status;
    count -= static_cast<std::uint32_t>(room.size());
  }
  return 0;
}

}  // namespace

std::uint32_t TakePipe(AnswerBytes& answer, PipeTaker& taker, std::uint32_t& return_value) {
  AlignedReader reader(answer);
  for (;;) {
    std::uint32_t count = 0;
    if (const std::uint32_t status = reader.Read(count)) return status;
    if (count == 0) break;
    if (const std::uint32_t status = TakeChunk(reader, taker, count)) return status;
  }
  if (const std::uint32_t status = taker.Push({})) return status;
  std::uint32_t value = 0;
  if (const std::uint32_t status = reader.Read(value)) return status;
  if (!answer.at_end()) return kBadStubData;
  return_value = value;
  return 0;
}

}  // namespace zel::sim
