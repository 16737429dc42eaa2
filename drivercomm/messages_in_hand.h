// The messages that were received but not yet processed at one moment.
//
// The driver's messages come in order but four threads take them: the last one may be done while an
// earlier one still waits for its bitmap to be loaded.
// Threads: an object belongs to one thread.
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

  // Whether all of them have been processed; what came later does not count.
  [[nodiscard]] bool Processed() const;

 private:
  std::shared_ptr<const DriverSession> session_;            // null while there are no threads
  std::array<std::uint64_t, kMessageThreads> rounds_ = {};  // 0: nothing in hand
};

}  // namespace zel
