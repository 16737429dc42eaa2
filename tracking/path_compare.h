// The order and the equality of tracked paths: the letters A to Z count as a to z, nothing else is
// folded. Pure.
//
// Units: strings hold UTF-16 code units, also where wchar_t is wider.
#pragma once

#include <algorithm>
#include <string_view>

namespace zel {

[[nodiscard]] constexpr char16_t FoldAsciiCase(char16_t unit) noexcept {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

// Whether `a` comes before `b`, unit by unit; a path comes after its own beginning. Two paths of
// which neither comes before the other are the same.
template <class A, class B>
[[nodiscard]] constexpr bool PathLess(std::basic_string_view<A> a,
                                      std::basic_string_view<B> b) noexcept {
  return std::ranges::lexicographical_compare(a, b, {}, FoldAsciiCase, FoldAsciiCase);
}

}  // namespace zel
