// The service's life between its start and its stop, under the service control manager and in debug
// mode alike.
//
// The subsystems are started in a fixed order by ZelServiceStart and stopped by StopService while
// ZelServiceStart still blocks on its own thread.
#pragma once

#include <cstdint>

#include "service/command_line.h"

namespace zel {

// Starts the service and returns when it has been stopped: 0, or the code of the step that failed
// (logged), unless a stop came before the RPC server. What a failed step before the RPC server has
// found standing is down again then. A failure of the RPC server itself leaves that to StopService
// and has been reported to the service manager: it gives 0, and its status in debug mode.
// `arguments` are the program's in debug mode, else those of the service's start.
[[nodiscard]] std::uint32_t ZelServiceStart(Arguments arguments);

// Stops what ZelServiceStart has started. Any thread, any number of times, also at once: each call
// runs the whole stop, and the last one to finish lets WaitForServiceStopped return.
void StopService();

// Whether the RPC server has ended, or does within that time. It ends after the last of the calls
// that had begun when listening ended.
[[nodiscard]] bool WaitForRpcServerEnd(std::uint32_t timeout_ms);

// Returns when a stop has been asked for and no StopService call is running any more; no time-out.
void WaitForServiceStopped();

// Returns when no StopService call is running; at once when none has been made. For debug mode,
// where a start that fails by itself is not followed by a stop.
void WaitForRunningStops();

}  // namespace zel
