#include "common/hex_name.h"

#include <cwchar>
#include <limits>

namespace zel {

std::wstring FormatHexName(std::uint64_t value, std::size_t digits) {
  constexpr wchar_t kDigits[] = L"0123456789abcdef";
  std::wstring text(digits, L'0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, value >>= 4) {
    *digit = kDigits[value & 0xF];
  }
  return text;
}

template <class Number>
std::optional<Number> ParseHexName(std::wstring_view name) {
  wchar_t terminated[kMaxHexDigits + 1] = {};
  name.copy(terminated, kMaxHexDigits);
  const auto value = static_cast<Number>(std::wcstoull(terminated, nullptr, 16));
  if (value == 0 || value == std::numeric_limits<Number>::max()) return std::nullopt;
  return value;
}
template std::optional<std::uint32_t> ParseHexName(std::wstring_view name);
template std::optional<std::uint64_t> ParseHexName(std::wstring_view name);

std::wstring FormatFileIdDirectory(FileId file_id) {
  return FormatHexName(file_id, kMaxHexDigits);
}

std::optional<FileId> ParseFileIdDirectory(std::wstring_view name) {
  if (name.size() != kMaxHexDigits) return std::nullopt;
  return ParseHexName<FileId>(name);
}

}  // namespace zel
