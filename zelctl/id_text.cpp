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

}  // namespace zel::ctl
