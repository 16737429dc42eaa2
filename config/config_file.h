// The configuration file of the log and of the settings: read at the start, watched from then on.
//
// Threads: the log calls both functions; two reads never overlap.
#pragma once

#include "logging/logging.h"

namespace zel {

// Applies the file of the log at `log_path` to LogEnableMask and the settings (config/settings.h).
// One that cannot be opened or read changes nothing and is not reported; a changed time-out is
// logged at General/Info.
void ReadConfiguration(std::wstring_view log_path);

// Until the log is shut down: applies the file again as soon as its directory is watched and
// whenever a file in it is written (not: renamed), and flushes the log when it has been idle for 3
// seconds.
void WatchConfiguration(const LogWatch& log);

// For InitLogging.
inline constexpr LogConfiguration kConfigurationFile = {ReadConfiguration, WatchConfiguration};

}  // namespace zel
