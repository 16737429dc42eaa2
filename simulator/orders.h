// The orders that the simulated driver takes on its control channel: one line of words each.
// Test bench only. Pure. README.md lists the words; orders.cpp has them as a table.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "simulator/wire.h"

namespace zel::sim {

enum class Verb {
  // Something happened to a file.
  kWrite,
  kBurst,
  kSize,
  kOpen,
  kClose,
  kRename,
  kVerify,
  kUnreported,
  kRead,
  // A message as it stands.
  kRaw,
  // What the user library asks for.
  kConnect,
  kSend,
  // How the driver behaves.
  kForget,
  kRedeliver,
  kHold,
  kRelease,
  kDelay,
  kDrop,
  kDuplicate,
  kReorder,
  kCorrupt,
  kRefuse,
  kAccept,
  kLimit,
  // About the driver.
  kReads,
  kCounters,
  kStop,
};

// How many writes one burst has at most.
inline constexpr std::uint64_t kMaxBurst = 10'000;

struct Order {
  Verb verb = Verb::kCounters;
  FileKey file = {};
  std::uint64_t offset = 0;  // or the new size
  std::uint32_t length = 0;
  std::uint32_t process_id = 0;
  std::optional<FileTime> time;  // of the event; the time of its arrival when it is not said
  std::uint64_t number = 1;      // how many messages, milliseconds, reply bytes
  std::uint32_t result = 0;      // the HRESULT of what is refused; 0: the filter manager's own
  std::string what;              // which damage, what is refused
  Bytes bytes;
};

// Reads one line; true when it is an order. Otherwise `fault` says what is wrong with it.
[[nodiscard]] bool ParseOrder(std::string_view line, Order& order, std::string& fault);

}  // namespace zel::sim
