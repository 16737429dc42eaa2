#include "logging/log_clock.h"

#include "win32/file_time.h"

#include <windows.h>

#include <atomic>

namespace zel {

namespace {

constexpr FileTime kTicksPerMinute = 60 * kFileTimeUnitsPerSecond;

FileTime TicksOf(const FILETIME& time) {
  return JoinHalves(time.dwHighDateTime, time.dwLowDateTime);
}

// Local time minus UTC in minutes, looked up once a minute: the call costs as much as the rest of
// a line's prefix.
std::int64_t LocalOffsetMinutes(const FILETIME& now) {
  // The minute of the look-up above, the offset below.
  static constinit std::atomic<std::uint64_t> cache{0};
  const std::uint64_t minute = TicksOf(now) / kTicksPerMinute;
  const std::uint64_t cached = cache.load(std::memory_order_relaxed);
  if (cached >> 32 == minute) return static_cast<std::int32_t>(cached);
  FILETIME local;
  ::FileTimeToLocalFileTime(&now, &local);
  const std::int64_t ticks = static_cast<std::int64_t>(TicksOf(local) - TicksOf(now));
  const std::int64_t offset = ticks / static_cast<std::int64_t>(kTicksPerMinute);
  cache.store(minute << 32 | static_cast<std::uint32_t>(offset), std::memory_order_relaxed);
  return offset;
}

}  // namespace

LogClock ReadLogClock() {
  constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
  FILETIME now;
  SYSTEMTIME fields;
  ::GetSystemTimeAsFileTime(&now);
  const std::uint64_t local =
      TicksOf(now) + static_cast<std::uint64_t>(LocalOffsetMinutes(now)) * kTicksPerMinute;
  const FILETIME local_time = {static_cast<DWORD>(local), static_cast<DWORD>(local >> 32)};
  ::FileTimeToSystemTime(&local_time, &fields);
  return {.seconds = static_cast<std::int64_t>(TicksOf(now) / kFileTimeUnitsPerSecond) -
                     kSecondsFrom1601To1970,
          .local = {fields.wYear, fields.wMonth, fields.wDay, fields.wHour, fields.wMinute,
                    fields.wSecond, fields.wMilliseconds}};
}

}  // namespace zel
