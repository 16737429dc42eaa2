#include "zelctl/map_picture.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "zelctl/canvas.h"
#include "zelctl/map_text.h"
#include "zelctl/size_text.h"

namespace zel::ctl {

namespace {

constexpr std::size_t kFieldPixels = 768;  // the field of cells is about as wide
constexpr std::size_t kMargin = 16;
constexpr std::size_t kLabelLetters = 10;  // of an offset
constexpr std::size_t kFieldLeft = kMargin + (kLabelLetters + 1) * Canvas::kLetterPixels;
constexpr std::size_t kLineStep = Canvas::kLinePixels + 6;

constexpr std::uint8_t kPaper = 0;
constexpr std::uint8_t kInk = 1;
constexpr std::uint8_t kUnchanged = 2;
constexpr std::uint8_t kFirstShade = 3;
constexpr std::uint8_t kShades = 13;

constexpr std::uint8_t Blend(int from, int to, int step, int steps) {
  return static_cast<std::uint8_t>(from + (to - from) * step / steps);
}

constexpr Palette MakePalette() {
  constexpr Colour kLittle = {255, 214, 102};
  constexpr Colour kAll = {128, 0, 38};
  Palette palette = {};
  palette[kPaper] = {255, 255, 255};
  palette[kInk] = {64, 64, 72};
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

// The field of cells: about twice as wide as it is high, with a round number of cells in a line.
struct Field {
  explicit Field(std::size_t cells) {
    cells = std::max<std::size_t>(cells, 1);
    while (columns * columns < 2 * cells) columns += columns < 16 ? 1 : 8;
    rows = (cells + columns - 1) / columns;
    side = kFieldPixels / columns;
  }
  [[nodiscard]] std::size_t width() const { return columns * side; }
  [[nodiscard]] std::size_t height() const { return rows * side; }

  std::size_t columns = 1;
  std::size_t rows = 1;
  std::size_t side = 0;  // of a cell, the gap of a pixel to the next one included
};

void DrawCells(const ChangeMap& map, const Field& field, Canvas& canvas) {
  for (std::size_t cell = 0; cell < map.shares.size(); ++cell) {
    canvas.Fill(kFieldLeft + cell % field.columns * field.side,
                kMargin + cell / field.columns * field.side, field.side - 1, field.side - 1,
                ColourOf(map.shares[cell]));
  }
}

// The offset with which a line of cells begins, beside as many lines as there is room for.
void DrawOffsets(const ChangeMap& map, const Field& field, Canvas& canvas) {
  if (map.shares.empty()) return;
  const std::size_t every = (kLineStep + field.side - 1) / field.side;
  for (std::size_t row = 0; row < field.rows; row += every) {
    const std::string text = FormatOffset(map.CellBegin(row * field.columns), map.totals.file_size);
    canvas.Write(kMargin + (kLabelLetters - text.size()) * Canvas::kLetterPixels,
                 kMargin + row * field.side, text, kInk);
  }
}

void DrawLegend(std::size_t top, Canvas& canvas) {
  std::size_t left = kFieldLeft;
  const auto write = [&](std::string_view text) {
    canvas.Write(left, top, text, kInk);
    left += (text.size() + 1) * Canvas::kLetterPixels;
  };
  const auto swatch = [&](std::uint8_t colour) {
    canvas.Fill(left, top, Canvas::kLetterPixels, Canvas::kLinePixels, colour);
    left += Canvas::kLetterPixels;
  };
  swatch(kUnchanged);
  left += Canvas::kLetterPixels;
  write("unchanged ");
  write("little");
  for (std::uint8_t shade = 0; shade < kShades; ++shade) swatch(kFirstShade + shade);
  left += Canvas::kLetterPixels;
  write("all changed");
}

}  // namespace

Picture PaintMap(const ChangeMap& map) {
  const Field field(map.shares.size());
  const std::size_t below = kMargin + field.height() + kMargin;
  Canvas canvas(kFieldLeft + field.width() + kMargin, below + 3 * kLineStep, MakePalette());
  DrawCells(map, field, canvas);
  DrawOffsets(map, field, canvas);
  DrawLegend(below, canvas);
  canvas.Write(kFieldLeft, below + kLineStep, "changed " + ChangedSizeText(map.totals), kInk);
  canvas.Write(kFieldLeft, below + 2 * kLineStep, ChangedBlocksText(map.totals, map.block_size),
               kInk);
  return canvas.picture();
}

}  // namespace zel::ctl
