#include "zelctl/canvas.h"

#include <algorithm>

namespace zel::ctl {

Canvas::Canvas(std::size_t width, std::size_t height, const Palette& palette)
    : picture_{.width = static_cast<std::uint32_t>(width),
               .height = static_cast<std::uint32_t>(height),
               .palette = palette,
               .pixels = std::vector<std::uint8_t>(width * height)} {}

void Canvas::Fill(std::size_t left, std::size_t top, std::size_t width, std::size_t height,
                  std::uint8_t colour) {
  const std::size_t right = std::min<std::size_t>(left + width, picture_.width);
  const std::size_t bottom = std::min<std::size_t>(top + height, picture_.height);
  for (std::size_t y = top; y < bottom; ++y) {
    for (std::size_t x = left; x < right; ++x) picture_.pixels[y * picture_.width + x] = colour;
  }
}

void Canvas::Write(std::size_t left, std::size_t top, std::string_view text, std::uint8_t colour) {
  for (const char letter : text) {
    const auto rows = GlyphOf(letter);
    for (std::size_t y = 0; y < rows.size(); ++y) {
      for (std::size_t x = 0; x < kGlyphWidth; ++x) {
        if ((rows[y] >> (kGlyphWidth - 1 - x) & 1) == 0) continue;
        Fill(left + x * kPointPixels, top + y * kPointPixels, kPointPixels, kPointPixels, colour);
      }
    }
    left += kLetterPixels;
  }
}

}  // namespace zel::ctl
