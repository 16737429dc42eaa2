// Process-wide settings from the configuration file. Stored by config/config_file alone, but for
// OnConfigurationApplied.
//
// Threads: read from any thread whenever needed; a reader sees the old or the new value.
#pragma once

#include <atomic>
#include <cstdint>

#include "config/config_parser.h"

namespace zel {

// Seconds that a loaded bitmap must have been unchanged before it is unloaded. Any value but 0 and
// -1 that the file gives is taken as it is, negative ones included.
inline constinit std::atomic<std::int64_t> BitmapIdleTimeout{kDefaultBitmapIdleTimeout};

// Seconds without progress after which synchronization and verification give up.
inline constinit std::atomic<std::int64_t> SyncTimeout{kDefaultSyncTimeout};

// Who may call over RPC. Once it is narrower than kAny, only the word "any" makes it so again while
// the service runs: an editor may empty the file before it writes it, and a key that is missing
// then opens nothing.
inline constinit std::atomic<CallerPolicy> RpcCallers{CallerPolicy::kAny};

// Set by whoever has to do something about a setting; null for nobody. Called each time the file
// has been applied, on the thread that has read it, whether or not a setting has changed.
inline constinit std::atomic<void (*)()> OnConfigurationApplied{nullptr};

}  // namespace zel
