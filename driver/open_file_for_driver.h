// Opening a tracked file so that the driver looks at it.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

// The driver answers it with a verify message about the file.
inline constexpr std::uint32_t kVerifyControlCode = 0x000937CF;

// Opens the file, which makes the driver compare it with the list of tracked files, sends
// `control_code` to it unless that is 0, and closes it. 0 or the Win32 error of what failed; that
// of the control code has been logged. A path that is not local (files/path_check.h), from a list
// that an earlier version has written, is not opened: there is no such file on this machine (3).
// Any thread.
[[nodiscard]] std::uint32_t OpenFileForDriver(const std::wstring& path,
                                              std::uint32_t control_code = 0);

// Whether such an error only says that there is no file to look at now: it or its directory is gone
// (2, 3), or its device is not ready (21).
[[nodiscard]] constexpr bool FileIsOutOfReach(std::uint32_t error) {
  return error == 2 || error == 3 || error == 21;
}

}  // namespace zel
