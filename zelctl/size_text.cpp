#include "zelctl/size_text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace zel::ctl {

namespace {

constexpr std::string_view kUnits = "KMGTPE";  // the last two for printing only

std::string InUnit(double value, std::size_t unit) {
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), "%.1f %ciB", value, kUnits[unit]);
  return text.data();
}

std::string InBytes(std::uint64_t bytes) {
  return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

// The power of two that a suffix multiplies with.
std::optional<int> ParseSuffix(std::string_view suffix) {
  if (suffix.empty()) return 0;
  const std::size_t unit = std::string_view("KkMmGgTt").find(suffix.front());
  suffix.remove_prefix(1);
  if (unit == std::string_view::npos || (!suffix.empty() && suffix != "iB")) return std::nullopt;
  return 10 * (static_cast<int>(unit / 2) + 1);
}

}  // namespace

std::optional<std::uint64_t> ParseSize(std::string_view text) {
  const bool is_hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (is_hexadecimal) text.remove_prefix(2);
  std::uint64_t number = 0;
  const auto [rest, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, is_hexadecimal ? 16 : 10);
  if (error != std::errc{}) return std::nullopt;
  const std::optional<int> shift =
      ParseSuffix(text.substr(static_cast<std::size_t>(rest - text.data())));
  if (!shift || number > std::numeric_limits<std::uint64_t>::max() >> *shift) return std::nullopt;
  return number << *shift;
}

std::string FormatSize(std::uint64_t bytes) {
  if (bytes < 1024) return InBytes(bytes);
  std::size_t unit = 0;
  auto value = static_cast<double>(bytes) / 1024;
  // What would be rounded to 1024.0 is one of the next unit.
  for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  return InUnit(value, unit);
}

std::string FormatExactSize(std::uint64_t bytes) {
  std::uint64_t unit = 1;
  while (bytes / unit >= 1024) unit *= 1024;
  // A remainder that one decimal tells exactly.
  return bytes % unit * 10 % unit == 0 ? FormatSize(bytes) : InBytes(bytes);
}

std::string FormatOffset(std::uint64_t offset, std::uint64_t file_size) {
  constexpr std::uint64_t kMost = 9999;
  if (file_size <= kMost) return InBytes(offset);
  std::size_t unit = 0;
  std::uint64_t whole = file_size / 1024;
  for (; whole >= kMost; ++unit) whole /= 1024;
  return InUnit(std::ldexp(static_cast<double>(offset), -10 * static_cast<int>(unit + 1)), unit);
}

}  // namespace zel::ctl
