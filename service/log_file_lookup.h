// The log file's path on this machine.
#pragma once

#include <windows.h>

namespace zel {

// Writes the path of the log file (see DeriveLogFilePath) for the program at `program_path` into
// `buffer`, NUL-terminated. Takes as long as GetInstallDirectory waits for the install directory.
void GetLogFilePath(const wchar_t* program_path, wchar_t (&buffer)[MAX_PATH]);

}  // namespace zel
