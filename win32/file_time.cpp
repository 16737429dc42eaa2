#include "win32/file_time.h"

#include <windows.h>

namespace zel {

FileTime SystemTimeNow() noexcept {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  return JoinHalves(now.dwHighDateTime, now.dwLowDateTime);
}

}  // namespace zel
