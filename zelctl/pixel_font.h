// The letters that pictures are labelled with. Pure.
#pragma once

#include <array>
#include <cstdint>

namespace zel::ctl {

inline constexpr int kGlyphWidth = 5;
inline constexpr int kGlyphHeight = 9;  // the last two for what hangs below the line

// The rows of a letter from the top, the leftmost point in bit 4. Digits, small letters but j, m,
// p, q, v, w, x and z, and what sizes and shares are written with; empty for every other character.
[[nodiscard]] std::array<std::uint8_t, kGlyphHeight> GlyphOf(char letter);

}  // namespace zel::ctl
