// What callers name is looked at before it is opened, kept or logged.
//
// Threads: any.
#pragma once

#include <cstdint>

namespace zel {

// 0 for a path that `operation` may go on with: that of a file on a local drive
// (files/path_check.h). Otherwise a Win32 code, and one line at General/Warn that has the start of
// the path: ERROR_FILENAME_EXCED_RANGE when it is too long, ERROR_INVALID_NAME, which is what the
// look-up of a volume answers for it, when it has control characters or is not local. Nothing is
// opened, but for the root of a drive that this machine has, to be told whether it is a share's.
[[nodiscard]] std::uint32_t RefusePath(const wchar_t* operation, const wchar_t* path);

// Whether a path is longer than any that is kept. Reads no more of it than that.
[[nodiscard]] bool IsTooLong(const wchar_t* path);

}  // namespace zel
