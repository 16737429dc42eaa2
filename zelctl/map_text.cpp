#include "zelctl/map_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "zelctl/size_text.h"

namespace zel::ctl {

namespace {

constexpr std::size_t kLabelWidth = 12;  // "9999.9 KiB" and two blanks
constexpr std::size_t kLegendWidth = 72;
constexpr std::size_t kTotalsWidth = 72;  // the longer line; about the most
constexpr std::size_t kFewestColumns = 40;
constexpr std::size_t kFewestLines = 8;

struct Shade {
  double up_to;  // the largest share that it stands for
  std::string_view utf8;
  char ascii;
  std::string_view meaning;
};
constexpr std::array<Shade, 5> kShades = {{
    {0.0, "\u00B7", '.', "unchanged"},
    {0.25, "\u2591", '-', "to 25 %"},
    {0.50, "\u2592", '+', "to 50 %"},
    {0.9999999, "\u2593", '*', "more"},
    {1.0, "\u2588", '#', "all changed"},
}};

std::string_view Mark(const Shade& shade, bool ascii) {
  return ascii ? std::string_view(&shade.ascii, 1) : shade.utf8;
}

const Shade& ShadeOf(double share) {
  const auto* const shade = std::ranges::find_if(
      kShades, [&](const Shade& candidate) { return share <= candidate.up_to; });
  return shade == kShades.end() ? kShades.back() : *shade;
}

// The legend and the totals, which a narrow terminal breaks, and the prompt that comes after.
std::size_t OtherLines(std::size_t columns) {
  const auto broken = [columns](std::size_t width) { return (width + columns - 1) / columns; };
  return broken(kLegendWidth) + 1 + broken(kTotalsWidth) + 1;
}

std::string Label(std::uint64_t offset, std::uint64_t file_size) {
  const std::string text = FormatOffset(offset, file_size);
  return std::string(kLabelWidth - 2 - text.size(), ' ') + text + "  ";
}

std::string Legend(bool ascii) {
  std::string legend(kLabelWidth, ' ');
  for (const Shade& shade : kShades) {
    legend.append(Mark(shade, ascii)).append(" ").append(shade.meaning).append("  ");
  }
  legend.resize(legend.size() - 2);
  return legend + "\n";
}

}  // namespace

std::size_t CellsThatFit(const TextMapLayout& layout) {
  const std::size_t columns = std::max(layout.columns, kFewestColumns);
  return (columns - kLabelWidth) * (std::max(layout.lines, kFewestLines) - OtherLines(columns));
}

std::string DrawMap(const ChangeMap& map, const TextMapLayout& layout) {
  const std::size_t width = std::max(layout.columns, kFewestColumns) - kLabelWidth;
  std::string text;
  for (std::size_t cell = 0; cell < map.shares.size(); ++cell) {
    if (cell % width == 0)
      text += (cell == 0 ? "" : "\n") + Label(map.CellBegin(cell), map.totals.file_size);
    text += Mark(ShadeOf(map.shares[cell]), layout.ascii);
  }
  if (!map.shares.empty()) text += "\n";
  return text + Legend(layout.ascii) + "changed " + ChangedSizeText(map.totals) + "\n" +
         ChangedBlocksText(map.totals, map.block_size) + "\n";
}

std::string ChangedSizeText(const ChangeTotals& totals) {
  const double share = totals.file_size == 0 ? 0.0
                                             : 100.0 * static_cast<double>(totals.changed_bytes) /
                                                   static_cast<double>(totals.file_size);
  std::array<char, 16> percent;
  std::snprintf(percent.data(), percent.size(), "%.1f %%", share);
  return FormatSize(totals.changed_bytes) + " of " + FormatSize(totals.file_size) + " (" +
         percent.data() + ")";
}

std::string ChangedBlocksText(const ChangeTotals& totals, std::uint32_t block_size) {
  return std::to_string(totals.changed_blocks) + " of " + std::to_string(totals.blocks) +
         " blocks of " + FormatExactSize(block_size) + ", in " + std::to_string(totals.ranges) +
         (totals.ranges == 1 ? " range" : " ranges");
}

}  // namespace zel::ctl
