#include "bitmap/idle_cutoff.h"

#include "win32/file_time.h"

#include <limits>

namespace zel {

namespace {

constexpr FileTime kLatest = std::numeric_limits<FileTime>::max();

constexpr FileTime UnitsOf(std::uint64_t seconds) {
  return seconds > kLatest / kFileTimeUnitsPerSecond ? kLatest : seconds * kFileTimeUnitsPerSecond;
}

}  // namespace

FileTime IdleCutoff(FileTime now, std::int64_t timeout_seconds) {
  const auto seconds = static_cast<std::uint64_t>(timeout_seconds);
  if (timeout_seconds >= 0) {
    const FileTime timeout = UnitsOf(seconds);
    return timeout > now ? 0 : now - timeout;
  }
  const FileTime ahead = UnitsOf(0 - seconds);  // unsigned: also for the smallest number
  return ahead > kLatest - now ? kLatest : now + ahead;
}

}  // namespace zel
