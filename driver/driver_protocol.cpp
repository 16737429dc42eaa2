#include "driver/driver_protocol.h"

#include <algorithm>
#include <cstring>
#include <iterator>

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

DriverStatus ParseDriverStatus(std::span<const std::byte, sizeof(DriverStatus)> reply) {
  DriverStatus status;
  std::memcpy(&status, reply.data(), sizeof status);
  return status;
}

const char* LoadStatusText(std::uint8_t code) {
  static constexpr const char* kTexts[] = {
      "Uninitialized",         "Deleted",         "Loaded",
      "Doesn't exist",         "Open failed",     "Unknown file size",
      "Failed to read header", "File too small",  "Unknown version",
      "Invalid header",        "File wrong size",
  };
  return code < std::size(kTexts) ? kTexts[code] : "<unkown>";
}

}  // namespace zel
