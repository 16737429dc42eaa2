// Where the log file is: composed by pure code, for the install directory of this machine.
#pragma once

#include "files/layout.h"

#include <string>
#include <string_view>

namespace zel {

// With an install directory: "<install directory>\log\zelservice.log", the directory taken as it
// is stored. Without one (empty): the program path with ".log" in place of everything from its
// first dot on, or appended when it has no dot; the bare name "zelservice.log" when that would not
// fit. Never longer than kMaxPathLength.
[[nodiscard]] std::wstring DeriveLogFilePath(std::wstring_view install_directory,
                                             std::wstring_view program_path);

// Writes the path of the log file for the program at `program_path` into `buffer`, NUL-terminated.
// Takes as long as GetInstallDirectory waits for the install directory.
void GetLogFilePath(const wchar_t* program_path, wchar_t (&buffer)[kMaxPathLength + 1]);

}  // namespace zel
