#include "zelctl/map_picture.h"

#include <algorithm>
#include <cmath>

namespace zel::ctl {

namespace {

constexpr std::size_t kWidthPixels = 768;  // about
constexpr std::uint8_t kPaper = 0;
constexpr std::uint8_t kUnchanged = 1;
constexpr std::uint8_t kFirstShade = 2;
constexpr std::uint8_t kShades = 14;

constexpr std::uint8_t Blend(int from, int to, int step, int steps) {
  return static_cast<std::uint8_t>(from + (to - from) * step / steps);
}

constexpr Palette MakePalette() {
  constexpr Colour kLittle = {255, 214, 102};
  constexpr Colour kAll = {128, 0, 38};
  Palette palette = {};
  palette[kPaper] = {255, 255, 255};
  palette[kUnchanged] = {224, 228, 232};
  for (int shade = 0; shade < kShades; ++shade) {
    palette[static_cast<std::size_t>(kFirstShade + shade)] = {
        Blend(kLittle.red, kAll.red, shade, kShades - 1),
        Blend(kLittle.green, kAll.green, shade, kShades - 1),
        Blend(kLittle.blue, kAll.blue, shade, kShades - 1)};
  }
  return palette;
}

std::uint8_t ColourOf(double share) {
  if (share <= 0) return kUnchanged;
  const auto shade = static_cast<int>(std::ceil(std::min(share, 1.0) * kShades)) - 1;
  return static_cast<std::uint8_t>(kFirstShade + shade);
}

// The cells in a line: a picture twice as wide as it is high.
std::size_t CountColumns(std::size_t cells) {
  std::size_t columns = 1;
  while (columns * columns < 2 * cells) ++columns;
  return columns;
}

}  // namespace

Picture PaintMap(const ChangeMap& map) {
  const std::size_t cells = map.shares.size();
  const std::size_t columns = CountColumns(std::max<std::size_t>(cells, 1));
  const std::size_t rows = std::max<std::size_t>((cells + columns - 1) / columns, 1);
  const std::size_t side = std::max<std::size_t>(kWidthPixels / columns, 2);
  Picture picture = {.width = static_cast<std::uint32_t>(columns * side),
                     .height = static_cast<std::uint32_t>(rows * side),
                     .palette = MakePalette(),
                     .pixels = std::vector<std::uint8_t>(columns * side * rows * side, kPaper)};
  for (std::size_t cell = 0; cell < cells; ++cell) {
    const std::size_t left = cell % columns * side;
    const std::size_t top = cell / columns * side;
    // A gap of one pixel between the squares.
    for (std::size_t y = top; y + 1 < top + side; ++y) {
      std::fill_n(picture.pixels.begin() + static_cast<std::ptrdiff_t>(y * picture.width + left),
                  side - 1, ColourOf(map.shares[cell]));
    }
  }
  return picture;
}

}  // namespace zel::ctl
