#include "common/system_time.h"

#include <windows.h>

namespace zel {

FileTime SystemTimeNow() noexcept {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  return static_cast<FileTime>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

}  // namespace zel
