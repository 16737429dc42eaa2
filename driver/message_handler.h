// One event message: checked, noted and acted on.
#pragma once

#include <cstddef>
#include <span>

namespace zel {

// `transferred`: what the port delivered, the filter manager's header included. Messages that are
// too small or not ours are logged and dropped. Any thread.
void HandleDriverMessage(std::span<const std::byte> transferred);

}  // namespace zel
