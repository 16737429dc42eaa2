// The present as the system stamps it.
#pragma once

#include "common/types.h"

namespace zel {

[[nodiscard]] FileTime SystemTimeNow() noexcept;

}  // namespace zel
