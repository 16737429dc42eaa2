#include "driver/driver_message.h"

#include <algorithm>
#include <cstring>

namespace zel {

DriverMessageFault ParseDriverMessage(std::span<const std::byte> transferred,
                                      DriverMessage& message) {
  const bool too_small = transferred.size() < sizeof message;
  if (too_small) message = {};
  if (!transferred.empty()) {
    std::memcpy(&message, transferred.data(), std::min(transferred.size(), sizeof message));
  }
  if (too_small) return DriverMessageFault::kTooSmall;
  return message.Magic == kDriverMessageMagic ? DriverMessageFault::kNone
                                              : DriverMessageFault::kWrongMagic;
}

}  // namespace zel
