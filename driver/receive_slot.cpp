#include "driver/receive_slot.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace zel {

namespace {

constexpr std::size_t kHeaderBytes = offsetof(ReceiveSlot, Message);
using Head = std::array<std::byte, sizeof(DriverMessage)>;

void SetState(ReceiveSlot& slot, ReceiveSlotState state) {
  // The process may be killed between any two stores: those before it come first.
  std::atomic_ref(slot.State).store(state, std::memory_order_release);
}

bool IsClear(std::span<const std::byte> bytes) {
  return std::ranges::all_of(bytes, [](std::byte byte) { return byte == std::byte{0}; });
}

// What counts of a slot; what the file lacks of it reads as 0.
struct SlotBytes {
  explicit SlotBytes(std::span<const std::byte> file) {
    std::array<std::byte, kHeaderBytes + sizeof(Head)> bytes = {};
    std::ranges::copy(file.first(std::min(file.size(), bytes.size())), bytes.begin());
    std::ranges::copy_n(bytes.begin() + kHeaderBytes, sizeof(Head), message.begin());
    is_clear = IsClear(bytes);
    std::memcpy(&magic, bytes.data() + offsetof(ReceiveSlot, Magic), sizeof magic);
    std::memcpy(&version, bytes.data() + offsetof(ReceiveSlot, Version), sizeof version);
    std::memcpy(&state, bytes.data() + offsetof(ReceiveSlot, State), sizeof state);
    std::memcpy(&receiver.id, bytes.data() + offsetof(ReceiveSlot, ProcessId), sizeof receiver.id);
    std::memcpy(&receiver.start, bytes.data() + offsetof(ReceiveSlot, ProcessStart),
                sizeof receiver.start);
  }

  [[nodiscard]] bool IsSlot() const {
    return magic == kReceiveSlotMagic && version == kReceiveSlotVersion &&
           (state == ReceiveSlotState::kEmpty || state == ReceiveSlotState::kReceiving);
  }

  bool is_clear;  // never used
  std::uint32_t magic;
  std::uint32_t version;
  ReceiveSlotState state;
  ProcessIdentity receiver;
  Head message;
};

void AddWhatIsLeft(const SlotBytes& slot, LeftMessages& left) {
  const bool is_slot = slot.IsSlot();
  if (slot.is_clear || (is_slot && slot.state == ReceiveSlotState::kEmpty)) return;
  if (!is_slot) left.is_damaged = true;
  if (IsClear(slot.message)) return;
  DriverMessage message;
  if (ParseDriverMessage(slot.message, message) == DriverMessageFault::kNone) {
    left.messages.push_back({is_slot ? slot.receiver : ProcessIdentity(), slot.message});
  } else if (is_slot) {
    left.one_is_unreadable = true;
  }
}

}  // namespace

void ClaimSlot(ReceiveSlot& slot, const ProcessIdentity& process) {
  slot.Version = kReceiveSlotVersion;
  slot.ProcessId = process.id;
  slot.ProcessStart = process.start;
  SetState(slot, ReceiveSlotState::kEmpty);
  std::atomic_ref(slot.Magic).store(kReceiveSlotMagic, std::memory_order_release);
}

void PrepareForRead(ReceiveSlot& slot) {
  // Not before the slot was marked empty.
  std::atomic_thread_fence(std::memory_order_release);
  std::memset(slot.Message, 0, sizeof(Head));
  SetState(slot, ReceiveSlotState::kReceiving);
}

void MarkEmpty(ReceiveSlot& slot) {
  SetState(slot, ReceiveSlotState::kEmpty);
}

bool HoldsMessage(const ReceiveSlot& slot) {
  return !IsClear(std::span(slot.Message).first<sizeof(Head)>());
}

LeftMessages FindLeftMessages(std::span<const std::byte> file) {
  LeftMessages left;
  for (std::size_t slot = 0; slot < kMessageThreads; ++slot) {
    const std::size_t begin = std::min(file.size(), slot * sizeof(ReceiveSlot));
    AddWhatIsLeft(SlotBytes(file.subspan(begin)), left);
  }
  return left;
}

}  // namespace zel
