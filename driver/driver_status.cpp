#include "driver/driver_status.h"

#include <cstring>

namespace zel {

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
