// The spelling of values in orders and their answers: numbers, GUIDs, byte strings.
// Test bench only. Pure.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/wire.h"

namespace zel::sim {

// Decimal, or hexadecimal behind "0x"; nothing else around it and no overflow.
template <std::unsigned_integral Number>
[[nodiscard]] bool ParseNumber(std::string_view text, Number& number) {
  int base = 10;
  if (text.starts_with("0x")) {
    base = 16;
    text.remove_prefix(2);
  }
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && rest == end;
}

// The 36-character form without braces, in either case.
[[nodiscard]] bool ParseVolume(std::string_view text, VolumeGuid& volume);
[[nodiscard]] std::string VolumeText(const VolumeGuid& volume);

// Two digits a byte, in either case; "-" is no byte at all.
[[nodiscard]] bool ParseBytes(std::string_view text, Bytes& bytes);
[[nodiscard]] std::string BytesText(const Bytes& bytes);

// "0x" and eight digits.
[[nodiscard]] std::string ResultText(std::uint32_t hresult);

}  // namespace zel::sim
