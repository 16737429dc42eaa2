#include "zelctl/time_text.h"

#include "win32/file_time.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>

namespace zel::ctl {

namespace {

using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, kFileTimeUnitsPerSecond>>;

constexpr std::chrono::sys_days kEpoch = std::chrono::year(1601) / 1 / 1;
constexpr std::chrono::sys_days kEnd = std::chrono::year(10000) / 1 / 1;
constexpr FileTime kEndTime = static_cast<FileTime>(Ticks(kEnd - kEpoch).count());

// Takes text off the front.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  // Exactly `count` digits.
  [[nodiscard]] bool Digits(std::size_t count, int& value) {
    value = 0;
    if (text_.size() < count) return false;
    for (const char c : text_.substr(0, count)) {
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    text_.remove_prefix(count);
    return true;
  }
  [[nodiscard]] bool Take(char expected) {
    if (text_.empty() || text_.front() != expected) return false;
    text_.remove_prefix(1);
    return true;
  }
  [[nodiscard]] bool at_end() const { return text_.empty(); }

 private:
  std::string_view text_;
};

bool ScanDate(Scanner& scanner, std::chrono::sys_days& date) {
  int year = 0;
  int month = 0;
  int day = 0;
  if (!scanner.Digits(4, year) || !scanner.Take('-') || !scanner.Digits(2, month) ||
      !scanner.Take('-') || !scanner.Digits(2, day)) {
    return false;
  }
  const std::chrono::year_month_day parts{std::chrono::year(year),
                                          std::chrono::month(static_cast<unsigned>(month)),
                                          std::chrono::day(static_cast<unsigned>(day))};
  if (!parts.ok()) return false;
  date = parts;
  return true;
}

bool ScanHourMinute(Scanner& scanner, std::chrono::minutes& minutes) {
  int hour = 0;
  int minute = 0;
  if (!scanner.Digits(2, hour) || !scanner.Take(':') || !scanner.Digits(2, minute)) return false;
  minutes = std::chrono::hours(hour) + std::chrono::minutes(minute);
  return hour < 24 && minute < 60;
}

// Seconds, and the digits behind a dot.
bool ScanSeconds(Scanner& scanner, Ticks& ticks) {
  int second = 0;
  if (!scanner.Take(':') || !scanner.Digits(2, second) || second > 59) return false;
  ticks = std::chrono::seconds(second);
  if (!scanner.Take('.')) return true;
  std::int64_t weight = Ticks::period::den;
  int digit = 0;
  while (weight > 1 && scanner.Digits(1, digit)) ticks += Ticks(digit * (weight /= 10));
  return weight < Ticks::period::den;
}

bool ScanZone(Scanner& scanner, std::chrono::minutes& ahead) {
  ahead = {};
  if (scanner.Take('Z')) return true;
  const bool west = scanner.Take('-');
  if ((!west && !scanner.Take('+')) || !ScanHourMinute(scanner, ahead)) return false;
  if (west) ahead = -ahead;
  return true;
}

std::optional<FileTime> ParseIso(std::string_view text) {
  Scanner scanner(text);
  std::chrono::sys_days date;
  std::chrono::minutes minutes;
  Ticks seconds;
  std::chrono::minutes ahead;
  if (!ScanDate(scanner, date) || !scanner.Take('T') || !ScanHourMinute(scanner, minutes) ||
      !ScanSeconds(scanner, seconds) || !ScanZone(scanner, ahead) || !scanner.at_end()) {
    return std::nullopt;
  }
  const Ticks time = Ticks(date - kEpoch) + minutes + seconds - ahead;
  if (time.count() < 0) return std::nullopt;
  return static_cast<FileTime>(time.count());
}

}  // namespace

std::optional<FileTime> ParseTime(std::string_view text, FileTime now) {
  if (text == "now") return now;
  FileTime number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc{} && end == text.data() + text.size()) return number;
  return ParseIso(text);
}

std::string FormatTime(FileTime time) {
  if (time >= kEndTime) return std::to_string(time);
  const auto ticks = static_cast<std::int64_t>(time);
  const auto days = std::chrono::floor<std::chrono::days>(Ticks(ticks));
  const std::chrono::year_month_day date(kEpoch + days);
  const std::chrono::hh_mm_ss clock(Ticks(ticks) - days);
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%07dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()),
                static_cast<int>(clock.subseconds().count()));
  return text.data();
}

}  // namespace zel::ctl
