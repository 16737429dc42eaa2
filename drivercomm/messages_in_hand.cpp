#include "drivercomm/messages_in_hand.h"

#include "drivercomm/message_threads.h"

namespace zel {

namespace {

// The round whose message is in hand, or 0. The event stays set until the next round begins, so a
// round that is seen with it is either this one or over.
std::uint64_t RoundInHand(const MessageReading& reading) {
  const std::uint64_t round = reading.round.load(std::memory_order_acquire);
  if (round % 2 == 0) return 0;
  return ::WaitForSingleObject(reading.received.get(), 0) == WAIT_OBJECT_0 ? round : 0;
}

}  // namespace

MessagesInHand::MessagesInHand() : session_(CurrentDriverSession()) {
  if (session_ == nullptr) return;
  for (std::size_t i = 0; i < rounds_.size(); ++i) {
    rounds_[i] = RoundInHand(session_->readings[i]);
  }
}

bool MessagesInHand::Processed() const {
  for (std::size_t i = 0; i < rounds_.size(); ++i) {
    if (rounds_[i] != 0 &&
        session_->readings[i].round.load(std::memory_order_acquire) == rounds_[i]) {
      return false;
    }
  }
  return true;
}

}  // namespace zel
