// The driver's status, written to the log.
#pragma once

#include <windows.h>

namespace zel {

// Asks the driver and logs its answer at General/Info. 0, or the result of the failed request,
// which has been logged. Any thread.
[[nodiscard]] HRESULT LogDriverStatus();

}  // namespace zel
