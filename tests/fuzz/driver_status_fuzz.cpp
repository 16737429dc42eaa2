// Any 48 bytes as the driver's status: every one can be read, and has a text.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "driver/driver_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  zel::DriverStatusBytes reply = {};
  if (size != 0) std::memcpy(reply.data(), data, std::min(size, reply.size()));
  const zel::DriverStatus status = zel::ParseDriverStatus(reply);
  const auto* const bytes = reinterpret_cast<const unsigned char*>(reply.data());
  const char* const text = zel::LoadStatusText(status.LoadStatus);
  const bool is_known = bytes[19] <= 10;
  const bool as_expected =
      status.LoadStatus == bytes[19] && status.Version[3] == (bytes[6] | bytes[7] << 8) &&
      status.FilesToBeMarkedUnreliable >> 24 == bytes[43] &&
      is_known == (std::strcmp(text, "<unkown>") != 0) && std::strlen(text) < 32;
  if (!as_expected) std::abort();
  return 0;
}
