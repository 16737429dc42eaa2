// The log file and its state, shared by the writer, the roller and the watcher. Inside logging/,
// but for FlushLogFileIfIdle.
//
// Threads: every function takes the log lock itself, for its whole run.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string_view>

namespace zel {

// A file larger than this many bytes is rolled, and a writer that has written more characters
// since the last roll asks for the check.
inline constexpr std::int64_t kLogRollSize = 10 * 1024 * 1024;

// Rolled files kept beside the log: <path>.1 (newest) to <path>.9.
inline constexpr int kRolledLogs = 9;

// Makes `path` the log's path and opens it for appending: readers allowed, other writers not.
// When it cannot be opened, lines go to standard output. Paths are cut at 259 characters.
void OpenLogFile(std::wstring_view path);

// Tries again to open a log that could not be opened, at the start or after a roll; the lines until
// then went to standard output, which the log says. False while it still cannot.
[[nodiscard]] bool ReopenLogFile();

// Closes the log for good; later lines go to standard output.
void CloseLogFile();

// The events that the writer sets (write: lines wait for a flush; roll: the size should be
// checked). Borrowed until the next call; null for none.
void SetLogEvents(HANDLE write_event, HANDLE roll_event);

// If the open file is larger than kLogRollSize bytes: moves it to number 1 of the rolled series,
// every other one up, deletes number 9, and starts a new file. Failed moves are ignored.
void RollLogFileIfLarge();

// Flushes lines that have waited for more than 2 whole seconds. Returns the seconds until the
// next call can be due: 0 when nothing waits for a flush.
[[nodiscard]] std::int64_t FlushLogFileIfIdle();

}  // namespace zel
