// The one log call of the system. Not here: where the lines go (logging/log_file.h), which
// selectors are on (config/config_file.h).
//
// A line: local time "2026-01-31 23:59:59.000", level word, [thread id], message. Formats are those
// of logging/log_format.h (%s wide, %hs narrow) and end in "\n" themselves.
// Threads: any thread, any lock held; the log lock is the innermost of all.
// Errors: none comes back, and the calling thread's last error is left as it was.
// Cost: a selector that is off costs one load and one test at the call site (and its arguments'
// evaluation); one that is on allocates nothing.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <type_traits>

#include "logging/log_format.h"
#include "logging/log_selector.h"

namespace zel {

// Bit i is set while selector i is written. 0 until InitLogging, which drops every earlier call.
// Stored by ReadConfigFile alone.
extern std::atomic<std::uint32_t> LogEnableMask;

// Whether a message with `selector` (0 to 14, not checked) would be written now.
[[nodiscard]] inline bool LogSelectorEnabled(int selector) noexcept {
  return (LogEnableMask.load(std::memory_order_relaxed) & (1u << selector)) != 0;
}

// Writes one line whatever the mask says. LogMessage is the call to use.
void WriteLogLine(int selector, const wchar_t* format,
                  std::span<const LogArgument> arguments) noexcept;

template <class... Args>
inline void LogMessage(int selector, LogFormat<std::type_identity_t<Args>...> format,
                       Args... args) noexcept {
  if (!LogSelectorEnabled(selector)) [[likely]]
    return;
  const std::array<LogArgument, sizeof...(Args)> arguments = {LogArgument::Of(args)...};
  WriteLogLine(selector, format.text(), arguments);
}

}  // namespace zel
