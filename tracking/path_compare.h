// The order and the equality of tracked paths: the letters A to Z count as a to z, nothing else is
// folded. Pure.
//
// Units: strings hold UTF-16 code units, also where wchar_t is wider.
#pragma once

#include <algorithm>
#include <string_view>

namespace zel {

[[nodiscard]] constexpr char16_t FoldAsciiCase(wchar_t unit) noexcept {
  const auto value = static_cast<char16_t>(unit);
  return value >= u'A' && value <= u'Z' ? static_cast<char16_t>(value - u'A' + u'a') : value;
}

// Whether `a` comes before `b`, unit by unit; a path comes after its own beginning. A comparator
// of ordered containers, which then look a path up without a copy.
struct PathLess {
  using is_transparent = void;

  [[nodiscard]] constexpr bool operator()(std::wstring_view a, std::wstring_view b) const noexcept {
    return std::ranges::lexicographical_compare(a, b, {}, FoldAsciiCase, FoldAsciiCase);
  }
};

}  // namespace zel
