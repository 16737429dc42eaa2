// One event message: checked, noted and acted on.
#pragma once

#include <cstddef>
#include <span>

#include "driver/driver_protocol.h"

namespace zel {

// This process; its start is unknown when the system does not tell it. Any thread.
[[nodiscard]] const ProcessIdentity& ThisProcess();

// `transferred`: what the port delivered, the filter manager's header included. Messages that are
// too small or not ours are logged and dropped. What `receiver`, the process that read the message,
// has itself done to a file is no change of it. Any thread.
void HandleDriverMessage(std::span<const std::byte> transferred,
                         const ProcessIdentity& receiver = ThisProcess());

}  // namespace zel
