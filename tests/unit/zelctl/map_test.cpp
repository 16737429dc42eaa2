// Drawing the map of changes: as text and as a picture.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/unit/support/bitmap_bytes.h"
#include "zelctl/canvas.h"
#include "zelctl/map_picture.h"
#include "zelctl/map_text.h"

namespace zel::ctl {
namespace {

using test::MakeBitmap;

TEST(DrawMapTest, AsciiMapHasOffsetsLegendAndTotals) {
  const ChangeMap map = MakeChangeMap(MakeBitmap(60 * 4096, 4096, {0, 1, 30}), 60 * 4096, 1000);
  EXPECT_EQ(DrawMap(map, {.columns = 52, .lines = 24, .ascii = true}),
            "   0.0 KiB  ##............................#.........\n"
            " 160.0 KiB  ....................\n"
            "            . unchanged  - to 25 %  + to 50 %  * more  # all changed\n"
            "changed 12.0 KiB of 240.0 KiB (5.0 %)\n"
            "3 of 60 blocks of 4.0 KiB, in 2 ranges\n");
}

TEST(DrawMapTest, EveryShareHasItsShade) {
  // Cells of 100 blocks: none, 1, 25, 26, 50, 51, 99 and all of them changed.
  std::vector<std::uint64_t> blocks;
  const int changed[] = {0, 1, 25, 26, 50, 51, 99, 100};
  for (int cell = 0; cell < 8; ++cell) {
    for (int i = 0; i < changed[cell]; ++i) blocks.push_back(cell * 100 + i);
  }
  const ChangeMap map = MakeChangeMap(MakeBitmap(800, 1, blocks), 800, 8);
  EXPECT_THAT(DrawMap(map, {.columns = 80, .lines = 24, .ascii = true}),
              testing::StartsWith("   0 bytes  .--++**#\n"));
  EXPECT_THAT(DrawMap(map, {.columns = 80, .lines = 24, .ascii = false}),
              testing::StartsWith("   0 bytes  ·░░▒▒▓▓█\n"));
}

TEST(DrawMapTest, EmptyFileHasALegendAlone) {
  const ChangeMap map = MakeChangeMap(MakeBitmap(0, 4096, {}), 0, 1000);
  EXPECT_THAT(DrawMap(map, {.columns = 80, .lines = 24, .ascii = true}),
              testing::EndsWith("changed 0 bytes of 0 bytes (0.0 %)\n"
                                "0 of 0 blocks of 4.0 KiB, in 0 ranges\n"));
}

TEST(DrawMapTest, MapFitsTheTerminal) {
  for (const std::size_t columns : {40, 41, 80, 132, 400}) {
    for (const std::size_t lines : {8, 24, 60}) {
      const TextMapLayout layout = {.columns = columns, .lines = lines, .ascii = true};
      const std::uint64_t size = std::uint64_t{1} << 40;
      const ChangeMap map =
          MakeChangeMap(MakeBitmap(size, 1u << 20, {5}), size, CellsThatFit(layout));
      const std::string text = DrawMap(map, layout);
      std::istringstream shown(text);
      std::size_t rows = 0;
      for (std::string line; std::getline(shown, line);) {
        rows += (line.size() + columns - 1) / columns;
      }
      EXPECT_LT(rows, lines) << columns;
      EXPECT_GE(rows + 3, lines) << columns;
      EXPECT_EQ(text.find('\n'), columns) << "the first line is full";
    }
  }
}

TEST(PaintMapTest, SquaresHaveTheColourOfTheirShare) {
  const Picture picture = PaintMap(MakeChangeMap(MakeBitmap(8, 1, {0, 7}), 8, kMostPictureCells));
  // Eight cells in two lines of four, behind the offsets.
  ASSERT_EQ(picture.width, 148u + 768u + 16u);
  ASSERT_EQ(picture.height, 16u + 384u + 16u + 3 * 24u);
  const auto at = [&](std::size_t x, std::size_t y) {
    return picture.pixels[(16 + y) * picture.width + 148 + x];
  };
  EXPECT_EQ(at(0, 0), 15) << "all changed";
  EXPECT_EQ(at(192, 0), 2) << "unchanged";
  EXPECT_EQ(at(191, 0), 0) << "the gap";
  EXPECT_EQ(at(3 * 192, 192), 15);
  EXPECT_EQ(at(0, 191), 0) << "the gap";
}

// The text line below the field that begins there, read back from the points of its letters.
std::string TextAt(const Picture& picture, std::size_t left, std::size_t top) {
  constexpr std::string_view kAlphabet = "0123456789.,%()BEGKMPTabcdefghiklnorstuy";
  std::string text;
  for (; left + Canvas::kLetterPixels <= picture.width; left += Canvas::kLetterPixels) {
    std::array<std::uint8_t, kGlyphHeight> rows = {};
    for (std::size_t y = 0; y < rows.size(); ++y) {
      for (std::size_t x = 0; x < kGlyphWidth; ++x) {
        const std::size_t at = (top + 2 * y) * picture.width + left + 2 * x;
        rows[y] = static_cast<std::uint8_t>(rows[y] << 1 | (picture.pixels[at] == 1));
      }
    }
    const auto letter = std::ranges::find_if(kAlphabet, [&](char c) { return GlyphOf(c) == rows; });
    text += letter == kAlphabet.end() ? ' ' : *letter;
  }
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

TEST(PaintMapTest, OffsetsLegendAndTotalsAreWritten) {
  const std::uint64_t size = std::uint64_t{256} << 20;
  const Picture picture =
      PaintMap(MakeChangeMap(MakeBitmap(size, 65536, {0, 1, 9}), size, kMostPictureCells));
  EXPECT_THAT(TextAt(picture, 16, 16), testing::StartsWith("   0.0 MiB"));
  // Lines of 96 cells of 8 pixels; beside every third there is room.
  EXPECT_THAT(TextAt(picture, 16, 16 + 3 * 8), testing::StartsWith("  18.0 MiB"));
  const std::size_t below = 16 + 43 * 8 + 16;
  EXPECT_EQ(TextAt(picture, 148, below),
            "  unchanged  little" + std::string(15, ' ') + "all changed");
  EXPECT_EQ(TextAt(picture, 148, below + 24), "changed 192.0 KiB of 256.0 MiB (0.1 %)");
  EXPECT_EQ(TextAt(picture, 148, below + 48), "3 of 4096 blocks of 64.0 KiB, in 2 ranges");
}

TEST(PixelFontTest, EveryLetterHasAShapeOfItsOwn) {
  constexpr std::string_view kAlphabet = " 0123456789.,%()BEGKMPTabcdefghiklnorstuy";
  std::set<std::array<std::uint8_t, kGlyphHeight>> shapes;
  for (const char letter : kAlphabet) shapes.insert(GlyphOf(letter));
  EXPECT_EQ(shapes.size(), kAlphabet.size());
}

TEST(CanvasTest, NothingIsDrawnOutside) {
  Canvas canvas(20, 8, {});
  canvas.Write(14, 2, "8888", 3);
  canvas.Fill(19, 7, 100, 100, 5);
  canvas.Fill(100, 100, 1, 1, 5);
  EXPECT_EQ(canvas.picture().pixels.size(), 160u);
  EXPECT_EQ(canvas.picture().pixels.back(), 5);
  EXPECT_EQ(std::ranges::count(canvas.picture().pixels, 5), 1);
}

TEST(PaintMapTest, LargestMapAndNoneArePictures) {
  for (const std::uint64_t blocks : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{3},
                                     std::uint64_t{8192}, std::uint64_t{100'000}}) {
    const Picture picture =
        PaintMap(MakeChangeMap(MakeBitmap(blocks, 1, {}), blocks, kMostPictureCells));
    EXPECT_GT(picture.height, 0u);
    EXPECT_LE(picture.width, 148u + 768u + 16u);
    EXPECT_EQ(picture.pixels.size(), std::size_t{picture.width} * picture.height);
  }
}

// tests/unit/zelctl/png_test.py reads what this writes.
TEST(EncodePngTest, PicturesAreWrittenForAnotherReader) {
  const char* const wanted = std::getenv("ZEL_PNG_FOLDER");
  const std::string folder = wanted != nullptr ? wanted : testing::TempDir();
  int number = 0;
  for (const auto& [width, height] : {std::pair{1, 1}, {2, 3}, {7, 5}, {640, 300}}) {
    Picture picture = {.width = static_cast<std::uint32_t>(width),
                       .height = static_cast<std::uint32_t>(height),
                       .palette = {},
                       .pixels = {}};
    for (std::uint8_t i = 0; i < 16; ++i) {
      picture.palette[i] = {i, static_cast<std::uint8_t>(100 + i),
                            static_cast<std::uint8_t>(255 - i)};
    }
    for (int i = 0; i < width * height; ++i) {
      picture.pixels.push_back(static_cast<std::uint8_t>(i * 7 % 16));
    }
    const std::string png = EncodePng(picture);
    EXPECT_GT(png.size(), picture.pixels.size() / 2);
    std::ofstream file(folder + "/" + std::to_string(number++) + ".png", std::ios::binary);
    EXPECT_TRUE(file << png);
  }
}

}  // namespace
}  // namespace zel::ctl
