#include "zelctl/id_text.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace zel::ctl {

std::optional<std::uint64_t> ParseId(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  std::uint64_t id = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
  if (error != std::errc{} || end != text.data() + text.size() || text.size() > 16) {
    return std::nullopt;
  }
  return id;
}

std::string FormatId(std::uint64_t id) {
  std::array<char, 19> text;
  std::snprintf(text.data(), text.size(), "0x%08x%08x", static_cast<unsigned>(id >> 32),
                static_cast<unsigned>(id));
  return text.data();
}

std::string FormatGuid(const VolumeGuid& guid) {
  std::array<char, 37> text;
  const auto& last = guid.Data4;
  std::snprintf(text.data(), text.size(), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, last[0], last[1],
                last[2], last[3], last[4], last[5], last[6], last[7]);
  return text.data();
}

std::optional<VolumeGuid> ParseGuid(std::string_view text) {
  std::string digits(text);
  std::erase(digits, '-');
  if (digits.size() != 32) return std::nullopt;
  const auto high = ParseId(std::string_view(digits).substr(0, 16));
  const auto low = ParseId(std::string_view(digits).substr(16));
  if (!high || !low) return std::nullopt;
  VolumeGuid guid = {.Data1 = static_cast<std::uint32_t>(*high >> 32),
                     .Data2 = static_cast<std::uint16_t>(*high >> 16),
                     .Data3 = static_cast<std::uint16_t>(*high),
                     .Data4 = {}};
  for (int i = 0; i < 8; ++i) guid.Data4[i] = static_cast<std::uint8_t>(*low >> (56 - 8 * i));
  if (FormatGuid(guid) != text) return std::nullopt;
  return guid;
}

}  // namespace zel::ctl
