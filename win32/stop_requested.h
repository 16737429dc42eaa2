// The one place that knows whether the service is to stop.
#pragma once

#include <atomic>

namespace zel {

// Set by the first stop (service/), before it stops any part, and never cleared. A part that can
// come up beside its own stop looks at it under the lock that its stop takes too: either it finds
// the flag, or the stop finds the part. The start looks at it to undo what came up after the stop.
inline constinit std::atomic<bool> StopRequested{false};

}  // namespace zel
