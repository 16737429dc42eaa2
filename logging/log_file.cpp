#include "logging/log_file.h"

#include <share.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <ctime>
#include <utility>

#include "logging/formatted_message.h"
#include "logging/log_line.h"
#include "logging/log_message.h"
#include "logging/log_paths.h"
#include "win32/critical_section.h"
#include "win32/last_error.h"

namespace zel {

// constinit: a call before InitLogging, from any static initialiser, finds every selector off.
constinit std::atomic<std::uint32_t> LogEnableMask{0};

namespace {

CriticalSection logLock;  // innermost of all locks

// Plain data, so that a line written while the process ends still finds it.
struct LogState {
  wchar_t path[MAX_PATH] = {};
  FILE* file = nullptr;
  std::int64_t written_characters = 0;  // to this file since it was opened or last rolled
  std::int64_t last_write_time = 0;     // seconds since 1970; 0 when nothing waits for a flush
  HANDLE write_event = nullptr;
  HANDLE roll_event = nullptr;
};

constinit LogState state ZEL_GUARDED_BY(logLock);

// Whether lines go to a file, for the writer's choice before it takes the lock. Stays true while a
// roll has the file closed: writers then wait for the lock.
constinit std::atomic<bool> log_file_open{false};

void OpenLocked() ZEL_REQUIRES(logLock) {
  state.file = ::_wfsopen(state.path, L"a+", _SH_DENYWR);
  log_file_open = state.file != nullptr;
}

void CloseLocked() ZEL_REQUIRES(logLock) {
  if (state.file != nullptr) std::fclose(std::exchange(state.file, nullptr));
}

// The number of UTF-16 units, at most `limit`, with which `text` can be cut without parting a
// surrogate pair.
std::size_t CutBetweenCharacters(std::wstring_view text, std::size_t limit) {
  if (text.size() <= limit) return text.size();
  const bool parts_a_pair = text[limit - 1] >= 0xD800 && text[limit - 1] <= 0xDBFF;
  return parts_a_pair ? limit - 1 : limit;
}

// Writes `prefix` and then `message` as UTF-8. One call of the stream for an ordinary line.
void WriteUtf8(FILE* stream, std::string_view prefix, std::wstring_view message) {
  constexpr std::size_t kUnits = 1024;
  std::array<char, kMaxLogPrefix + kUnits * 3> bytes;  // three bytes at most for a UTF-16 unit
  std::size_t used = prefix.copy(bytes.data(), prefix.size());
  do {
    const std::size_t units = CutBetweenCharacters(message, kUnits);
    used += static_cast<std::size_t>(::WideCharToMultiByte(
        CP_UTF8, 0, message.data(), static_cast<int>(units), bytes.data() + used,
        static_cast<int>(bytes.size() - used), nullptr, nullptr));
    std::fwrite(bytes.data(), 1, used, stream);
    message.remove_prefix(units);
    used = 0;
  } while (!message.empty());
}

LogTime LocalLogTime() {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

void WriteLineLocked(int selector, const LogTime& time, std::wstring_view message)
    ZEL_REQUIRES(logLock) {
  std::array<char, kMaxLogPrefix> prefix;
  const std::size_t length = FormatLogPrefix(prefix, time, selector, ::GetCurrentThreadId());
  WriteUtf8(state.file, {prefix.data(), length}, message);
  state.written_characters += static_cast<std::int64_t>(length + message.size());
  if (state.written_characters > kLogRollSize) ::SetEvent(state.roll_event);
  // The watcher polls until what waits is flushed, so the event is needed only for the first line
  // after a flush: setting it costs more than writing the line.
  const bool nothing_waited = state.last_write_time == 0;
  state.last_write_time = std::time(nullptr);
  if (nothing_waited) ::SetEvent(state.write_event);
}

void WriteToStandardOutput(std::wstring_view message) {
  WriteUtf8(stdout, {}, message);
  std::fflush(stdout);
}

// False when no file is open.
bool WriteToFile(int selector, std::wstring_view message) {
  if (!log_file_open) return false;
  const LogTime time = LocalLogTime();
  const LockGuard guard(logLock);
  if (state.file == nullptr) return false;
  WriteLineLocked(selector, time, message);
  return true;
}

}  // namespace

void WriteLogLine(int selector, const wchar_t* format, ...) noexcept {
  const LastErrorKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  const FormattedMessage message(format, arguments);
  va_end(arguments);
  if (!WriteToFile(selector, message.text())) WriteToStandardOutput(message.text());
}

void OpenLogFile(std::wstring_view path) {
  const LockGuard guard(logLock);
  state.path[path.copy(state.path, MAX_PATH - 1)] = L'\0';
  OpenLocked();
}

void CloseLogFile() {
  const LockGuard guard(logLock);
  log_file_open = false;
  CloseLocked();
}

void SetLogEvents(HANDLE write_event, HANDLE roll_event) {
  const LockGuard guard(logLock);
  state.write_event = write_event;
  state.roll_event = roll_event;
}

namespace {

bool IsLargeLocked() ZEL_REQUIRES(logLock) {
  struct _stat64 status;
  return state.file != nullptr && ::_fstat64(::_fileno(state.file), &status) == 0 &&
         status.st_size > kLogRollSize;
}

void ShiftRolledFilesLocked() ZEL_REQUIRES(logLock) {
  ::DeleteFileW(RolledLogPath(state.path, kRolledLogs).c_str());
  for (int number = kRolledLogs - 1; number >= 0; --number) {
    ::MoveFileW(RolledLogPath(state.path, number).c_str(),
                RolledLogPath(state.path, number + 1).c_str());
  }
}

// The first line of the new file. LogMessage's own road would enter the lock again.
void LogRolledLocked() ZEL_REQUIRES(logLock) {
  constexpr std::wstring_view kMessage = L"New log file started due to log file rolling\n";
  if (!LogSelectorEnabled(kGeneralInfo)) return;
  if (state.file != nullptr) {
    WriteLineLocked(kGeneralInfo, LocalLogTime(), kMessage);
  } else {
    WriteToStandardOutput(kMessage);
  }
}

}  // namespace

void RollLogFileIfLarge() {
  const LockGuard guard(logLock);
  if (!IsLargeLocked()) return;
  CloseLocked();
  ShiftRolledFilesLocked();
  state.written_characters = 0;
  OpenLocked();
  LogRolledLocked();
}

std::int64_t FlushLogFileIfIdle() {
  constexpr std::int64_t kIdleSeconds = 3;
  const LockGuard guard(logLock);
  if (state.file == nullptr || state.last_write_time == 0) return 0;
  const std::int64_t idle = std::time(nullptr) - state.last_write_time;
  if (idle < kIdleSeconds) return std::min(kIdleSeconds - idle, kIdleSeconds);
  std::fflush(state.file);
  state.last_write_time = 0;
  return 0;
}

}  // namespace zel
