#include "drivercomm/messages_in_hand.h"

#include "drivercomm/message_threads.h"

namespace zel {

MessagesInHand::MessagesInHand() : session_(CurrentDriverSession()) {
  if (session_ == nullptr) return;
  for (std::size_t i = 0; i < questions_.size(); ++i) {
    MessageReading& reading = session_->readings[i];
    const std::uint64_t round = reading.round.load(std::memory_order_acquire);
    if (round % 2 == 0) continue;
    questions_[i] = {round, reading.asked.fetch_add(1, std::memory_order_acq_rel) + 1};
    ::SetEvent(reading.asked_event.get());
  }
}

bool MessagesInHand::Processed() const {
  for (std::size_t i = 0; i < questions_.size(); ++i) {
    const Question& question = questions_[i];
    if (question.round == 0) continue;
    const MessageReading& reading = session_->readings[i];
    const bool same_round = reading.round.load(std::memory_order_acquire) == question.round;
    if (same_round && reading.answered.load(std::memory_order_acquire) < question.number) {
      return false;
    }
  }
  return true;
}

}  // namespace zel
