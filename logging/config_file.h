// Reading the configuration file into LogEnableMask and the settings. Inside logging/.
//
// Threads: InitLogging's thread once, then the watcher's only; two reads never overlap.
#pragma once

namespace zel {

// Applies the file at `path` (NUL-terminated). A file that cannot be opened or read changes nothing
// and is not reported; a changed time-out is logged at General/Info.
void ReadConfigFile(const wchar_t* path);

}  // namespace zel
