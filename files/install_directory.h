// Where the host agent is installed, and the directory of the bitmaps in it.
//
// Threads: any thread.
#pragma once

#include "files/layout.h"

#include <string>

namespace zel {

// The host agent's install directory from the registry. While there is none it waits for it, 15 s
// in all; then the buffer holds the empty string. What does not fit the buffer counts as none.
// Backslashes at its end are cut.
void GetInstallDirectory(wchar_t (&buffer)[260]);

// The directory that holds the bitmaps, in the "\\?\" form, without a backslash at its end.
// Computed by the first call, which may take GetInstallDirectory's 15 s; a thread that calls
// meanwhile waits for it. The string lives as long as the process. A path longer than
// kMaxPathLength ends the process with STATUS_INVALID_CRUNTIME_PARAMETER.
[[nodiscard]] const std::wstring& GetCbtDirectory();

}  // namespace zel
