// The layout of a log line's prefix. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace zel {

// Broken-down local time, as SYSTEMTIME has it.
struct LogTime {
  std::uint16_t year;
  std::uint16_t month;
  std::uint16_t day;
  std::uint16_t hour;
  std::uint16_t minute;
  std::uint16_t second;
  std::uint16_t millisecond;
};

// Room for any prefix: every field at its widest is 70 characters.
inline constexpr std::size_t kMaxLogPrefix = 72;

// "TRACE", "DEBUG", "INFO ", "WARN " or "ERROR": five characters, "INFO " for a selector outside
// 0 to 14.
[[nodiscard]] std::string_view LevelWord(int selector);

// Writes "2026-01-31 23:59:59.000 INFO  [1234] " into `out`, which holds kMaxLogPrefix characters,
// and returns its length. No terminator. Numbers wider than their column push the rest right.
std::size_t FormatLogPrefix(std::span<char, kMaxLogPrefix> out, const LogTime& time, int selector,
                            std::uint32_t thread_id);

}  // namespace zel
