// A picture to draw rectangles and words on. Pure.
//
// Units: pixels from the top left. What lies outside the picture is not drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zelctl/pixel_font.h"
#include "zelctl/png_writer.h"

namespace zel::ctl {

class Canvas {
 public:
  static constexpr std::size_t kPointPixels = 2;  // the side of a point of a letter
  static constexpr std::size_t kLetterPixels = (kGlyphWidth + 1) * kPointPixels;
  static constexpr std::size_t kLinePixels = kGlyphHeight * kPointPixels;

  // All in the palette's first colour.
  Canvas(std::size_t width, std::size_t height, const Palette& palette);

  void Fill(std::size_t left, std::size_t top, std::size_t width, std::size_t height,
            std::uint8_t colour);
  void Write(std::size_t left, std::size_t top, std::string_view text, std::uint8_t colour);

  [[nodiscard]] const Picture& picture() const { return picture_; }

 private:
  Picture picture_;
};

}  // namespace zel::ctl
