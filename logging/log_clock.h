// The present for a log line. Inside logging/.
#pragma once

#include <cstdint>

#include "logging/log_line.h"

namespace zel {

struct LogClock {
  std::int64_t seconds;  // since 1970, UTC
  LogTime local;
};

// One reading of the system time, in both forms. Any thread. A change of the time zone is seen
// within a minute.
[[nodiscard]] LogClock ReadLogClock();

}  // namespace zel
