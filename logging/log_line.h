// The layout of a log line's prefix. Pure.
#pragma once

#include <cstdint>
#include <string_view>

#include "logging/utf8_writer.h"

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

// "TRACE", "DEBUG", "INFO ", "WARN " or "ERROR": five characters, "INFO " for a selector outside
// 0 to 14.
[[nodiscard]] std::string_view LevelWord(int selector);

// Writes "2026-01-31 23:59:59.000 INFO  [1234] ". Numbers wider than their column push the rest to
// the right.
void WriteLogPrefix(Utf8Writer& out, const LogTime& time, int selector, std::uint32_t thread_id);

}  // namespace zel
