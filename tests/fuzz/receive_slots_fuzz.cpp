// Any bytes as a file of receive slots: read as messages, or told to hold none. The first bytes are
// also spread over the slots of a whole file, which is longer than what the fuzzer makes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "driver/receive_slot.h"

namespace {

constexpr std::size_t kSlotHeadBytes = 64 + 80;

void Require(bool condition) {
  if (!condition) std::abort();
}

// The head of a slot, of which `bytes` may have less.
std::vector<std::byte> HeadOf(std::span<const std::byte> bytes) {
  std::vector<std::byte> head(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                 bytes.size(), kSlotHeadBytes)));
  head.resize(kSlotHeadBytes);
  return head;
}

std::uint32_t NumberAt(const std::vector<std::byte>& head, std::size_t at) {
  std::uint32_t number;
  std::memcpy(&number, head.data() + at, sizeof number);
  return number;
}

void Check(std::span<const std::byte> file) {
  const zel::LeftMessages left = zel::FindLeftMessages(file);
  std::size_t expected = 0;
  for (std::size_t slot = 0; slot < zel::kMessageThreads; ++slot) {
    const std::size_t begin = std::min(file.size(), slot * sizeof(zel::ReceiveSlot));
    const std::vector<std::byte> head = HeadOf(file.subspan(begin));
    const bool is_slot =
        NumberAt(head, 0) == 0x6D4C455A && NumberAt(head, 4) == 1 && NumberAt(head, 8) <= 1;
    const bool is_empty = is_slot && NumberAt(head, 8) == 0;
    if (is_empty || NumberAt(head, 64 + 16) != 0x092ABB38) continue;
    Require(expected < left.messages.size());
    const zel::LeftMessage& message = left.messages[expected++];
    Require(std::memcmp(message.bytes.data(), head.data() + 64, message.bytes.size()) == 0);
    Require(message.receiver.id == (is_slot ? NumberAt(head, 12) : 0));
    Require(is_slot || left.is_damaged);
  }
  Require(expected == left.messages.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A block that ends where the file does, for AddressSanitizer.
  const std::unique_ptr<std::byte[]> bytes(new std::byte[size]);
  if (size != 0) std::memcpy(bytes.get(), data, size);
  Check({bytes.get(), size});
  static std::vector<std::byte> file(zel::kReceiveSlotsBytes);
  for (std::size_t slot = 0; slot < zel::kMessageThreads; ++slot) {
    const std::size_t begin = std::min(size, slot * kSlotHeadBytes);
    const std::vector<std::byte> head = HeadOf({bytes.get() + begin, size - begin});
    std::memcpy(file.data() + slot * sizeof(zel::ReceiveSlot), head.data(), head.size());
  }
  Check(file);
  return 0;
}
