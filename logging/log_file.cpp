#include "logging/log_file.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "logging/log_clock.h"
#include "logging/log_line.h"
#include "logging/log_message.h"
#include "logging/log_paths.h"
#include "logging/utf8_writer.h"
#include "win32/critical_section.h"
#include "win32/last_error.h"
#include "win32/no_links.h"

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

// The log and its directory: what is above them may be reached through links.
constexpr int kOwnLevels = 2;

// A stream that appends text to the file, which it owns then. Null for a failure.
FILE* StreamOn(UniqueFile file) {
  if (!file) return nullptr;
  const int descriptor = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(file.get()),
                                           _O_APPEND | _O_TEXT | _O_NOINHERIT);
  if (descriptor == -1) return nullptr;
  (void)file.release();
  FILE* const stream = ::_fdopen(descriptor, "a+");
  if (stream == nullptr) ::_close(descriptor);
  return stream;
}

void OpenLocked() ZEL_REQUIRES(logLock) {
  state.file = StreamOn(OpenWithoutLinks(state.path, kOwnLevels, GENERIC_READ | GENERIC_WRITE,
                                         FILE_SHARE_READ, OPEN_ALWAYS));
  log_file_open = state.file != nullptr;
}

void CloseLocked() ZEL_REQUIRES(logLock) {
  if (state.file != nullptr) std::fclose(std::exchange(state.file, nullptr));
}

using Arguments = std::span<const LogArgument>;

void WriteBytes(void* stream, const char* bytes, std::size_t count) {
  std::fwrite(bytes, 1, count, static_cast<FILE*>(stream));
}

void WriteLine(Utf8Writer& out, int selector, const LogClock& clock, const wchar_t* format,
               Arguments arguments) {
  WriteLogPrefix(out, clock.local, selector, ::GetCurrentThreadId());
  FormatLogMessage(out, format, arguments);
}

// A line put together before the lock is taken, so that threads wait for each other only while the
// stream takes the bytes. A line that does not fit is written piece by piece under the lock.
class ShortLine {
 public:
  ShortLine(int selector, const LogClock& clock, const wchar_t* format, Arguments arguments) {
    Utf8Writer out(Append, this);
    WriteLine(out, selector, clock, format, arguments);
    characters_ = out.characters();
  }

  [[nodiscard]] bool fits() const { return fits_; }
  [[nodiscard]] std::string_view bytes() const { return {bytes_.data(), used_}; }
  [[nodiscard]] std::size_t characters() const { return characters_; }

 private:
  static void Append(void* target, const char* bytes, std::size_t count) {
    auto& line = *static_cast<ShortLine*>(target);
    line.fits_ = line.fits_ && line.used_ + count <= line.bytes_.size();
    if (!line.fits_) return;
    std::memcpy(line.bytes_.data() + line.used_, bytes, count);
    line.used_ += count;
  }

  std::array<char, 2048> bytes_;
  std::size_t used_ = 0;
  std::size_t characters_ = 0;
  bool fits_ = true;
};

void CountLineLocked(std::size_t characters, std::int64_t now_seconds) ZEL_REQUIRES(logLock) {
  state.written_characters += static_cast<std::int64_t>(characters);
  if (state.written_characters > kLogRollSize) ::SetEvent(state.roll_event);
  // The watcher polls until what waits is flushed, so the event is needed only for the first line
  // after a flush: setting it costs more than writing the line.
  const bool nothing_waited = state.last_write_time == 0;
  state.last_write_time = now_seconds;
  if (nothing_waited) ::SetEvent(state.write_event);
}

void WriteToStandardOutput(const wchar_t* format, Arguments arguments) {
  {
    Utf8Writer message(WriteBytes, stdout);
    FormatLogMessage(message, format, arguments);
  }
  std::fflush(stdout);
}

// False when no file is open.
bool WriteToFile(int selector, const wchar_t* format, Arguments arguments) {
  if (!log_file_open) return false;
  const LogClock clock = ReadLogClock();
  const ShortLine line(selector, clock, format, arguments);
  const LockGuard guard(logLock);
  if (state.file == nullptr) return false;
  if (line.fits()) {
    WriteBytes(state.file, line.bytes().data(), line.bytes().size());
  } else {
    Utf8Writer out(WriteBytes, state.file);
    WriteLine(out, selector, clock, format, arguments);
  }
  CountLineLocked(line.characters(), clock.seconds);
  return true;
}

}  // namespace

void WriteLogLine(int selector, const wchar_t* format, Arguments arguments) noexcept {
  const LastErrorKeeper keeper;
  if (!WriteToFile(selector, format, arguments)) WriteToStandardOutput(format, arguments);
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
  state.path[0] = L'\0';  // for good
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

// As far as they are where their names say.
void ShiftRolledFilesLocked() ZEL_REQUIRES(logLock) {
  (void)DeleteInPlace(RolledLogPath(state.path, kRolledLogs), kOwnLevels);
  for (int number = kRolledLogs - 1; number >= 0; --number) {
    const std::wstring path = RolledLogPath(state.path, number);
    if (CheckPlace(path, kOwnLevels) != ERROR_SUCCESS) continue;
    ::MoveFileW(path.c_str(), RolledLogPath(state.path, number + 1).c_str());
  }
}

}  // namespace

bool ReopenLogFile() {
  const LockGuard guard(logLock);
  if (state.file != nullptr || state.path[0] == L'\0') return true;
  OpenLocked();
  if (state.file == nullptr) return false;
  LogMessage(kGeneralWarn, L"Log file opened again: earlier lines are missing\n");
  return true;
}

void RollLogFileIfLarge() {
  const LockGuard guard(logLock);
  if (!IsLargeLocked()) return;
  CloseLocked();
  ShiftRolledFilesLocked();
  state.written_characters = 0;
  OpenLocked();
  // Enters the lock again, so that this is the new file's first line.
  LogMessage(kGeneralInfo, L"New log file started due to log file rolling\n");
}

std::int64_t FlushLogFileIfIdle() {
  constexpr std::int64_t kIdleSeconds = 3;
  const LockGuard guard(logLock);
  if (state.file == nullptr || state.last_write_time == 0) return 0;
  const std::int64_t idle = ReadLogClock().seconds - state.last_write_time;
  // Less than none: the clock was set back, and nobody knows how long they have waited.
  if (idle >= 0 && idle < kIdleSeconds) return kIdleSeconds - idle;
  std::fflush(state.file);
  state.last_write_time = 0;
  return 0;
}

}  // namespace zel
