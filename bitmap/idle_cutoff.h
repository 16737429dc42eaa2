// When a loaded bitmap counts as idle. Pure.
#pragma once

#include <cstdint>

#include "files/types.h"

namespace zel {

// The latest LastUpdateTime of an idle bitmap: `now` less the time-out. The time-out may be any
// number; a cutoff before or after what a FileTime can hold becomes 0 or its maximum, so that a
// huge one keeps every bitmap loaded and a negative one keeps none.
[[nodiscard]] FileTime IdleCutoff(FileTime now, std::int64_t timeout_seconds);

}  // namespace zel
