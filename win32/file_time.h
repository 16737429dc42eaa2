// Points in time as the system stamps them. Free of <windows.h>, so that pure code can name them.
#pragma once

#include <cstdint>

namespace zel {

// 100 ns units since 1601-01-01 UTC.
using FileTime = std::uint64_t;

inline constexpr FileTime kFileTimeUnitsPerSecond = 10'000'000;

// The number that Windows hands out in two halves: a FILETIME, a file's index, a size.
[[nodiscard]] constexpr std::uint64_t JoinHalves(std::uint32_t high, std::uint32_t low) noexcept {
  return std::uint64_t{high} << 32 | low;
}

// The present by the system's clock, which somebody may set back. Any thread.
[[nodiscard]] FileTime SystemTimeNow() noexcept;

}  // namespace zel
