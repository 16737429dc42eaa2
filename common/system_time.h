// The present as the system stamps it.
#pragma once

#include <windows.h>

#include "common/types.h"

namespace zel {

[[nodiscard]] inline FileTime SystemTimeNow() noexcept {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  return static_cast<FileTime>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

}  // namespace zel
