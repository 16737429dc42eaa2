// The messages that were received but not yet processed at one moment.
//
// The driver's messages come in order but four threads take them: the last one may be done while an
// earlier one still waits for its bitmap to be loaded, or for its thread to be told that its read
// is over. The system tells so in that very thread, so only the thread itself can say that its read
// had no message: the threads are asked. Threads: an object belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "drivercomm/driver_session.h"

namespace zel {

class MessagesInHand {
 public:
  // Those of now.
  MessagesInHand();

  // Whether all of them have been processed; what came later does not count. It takes the threads a
  // moment to say so even when there are none.
  [[nodiscard]] bool Processed() const;

 private:
  struct Question {
    std::uint64_t round = 0;  // of the thread when it was asked; 0: it was between two
    std::uint64_t number = 0;
  };

  std::shared_ptr<DriverSession> session_;  // null while there are no threads
  std::array<Question, kMessageThreads> questions_ = {};
};

}  // namespace zel
