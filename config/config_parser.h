// Where the configuration file is, and what its text means. Pure.
//
// Format: docs/operations.md, "Configuration file".
// Errors: none; a malformed line is skipped, an unknown key ignored.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "logging/log_selector.h"

namespace zel {

// Where the configuration of a log is.
struct ConfigPaths {
  std::wstring directory;  // to be watched; empty when it cannot be derived
  std::wstring file;       // to be read; the log path itself when nothing can be derived
};

// For D:\agent\log\zelservice.log: D:\agent\config and D:\agent\config\plexor.conf. A log path
// with fewer than two backslashes derives nothing.
[[nodiscard]] ConfigPaths DeriveConfigPaths(std::wstring_view log_path);

inline constexpr std::int64_t kDefaultBitmapIdleTimeout = 600;  // seconds
inline constexpr std::int64_t kDefaultSyncTimeout = 60;         // seconds

// The lowest level of a category that is written; kSilent writes none.
using LevelThreshold = int;
inline constexpr LevelThreshold kSilent = kLogLevels;

// Who may call the service over RPC (docs/security.md).
enum class CallerPolicy {
  kAny,             // whoever the system lets through
  kLocal,           // over ncalrpc alone, which has no way in from another machine
  kAdministrators,  // whose token has the administrators' group enabled, from anywhere
};

struct Configuration {
  std::array<LevelThreshold, kLogCategories> levels = {kInfo, kInfo, kInfo};  // by LogCategory
  std::int64_t bitmap_idle_timeout = kDefaultBitmapIdleTimeout;               // seconds
  std::int64_t sync_timeout = kDefaultSyncTimeout;                            // seconds
  std::optional<CallerPolicy> rpc_callers;  // none: as it has been, so that no line opens a door
};

// "trace" to "error" in any case; kSilent for every other word.
[[nodiscard]] LevelThreshold ParseLevelWord(std::string_view word);

// "any", "local" and "administrators" in any case. Every other word stands for kAdministrators: one
// that is misspelt opens nothing.
[[nodiscard]] CallerPolicy ParseCallerPolicy(std::string_view word);

// The word that stands for `policy`.
[[nodiscard]] const wchar_t* WordOf(CallerPolicy policy);

// Every key that the text can set, as the documents and package/plexor.conf write it.
[[nodiscard]] std::vector<std::string_view> ConfigurationKeys();

// Reads the whole file's text; lines end at "\n" (the caller's text stream has taken CR away).
[[nodiscard]] Configuration ParseConfiguration(std::string_view text);

// The LogEnableMask for `levels`: per category the bits of its threshold and of all levels above.
[[nodiscard]] std::uint32_t ComputeLogEnableMask(
    const std::array<LevelThreshold, kLogCategories>& levels);

}  // namespace zel
