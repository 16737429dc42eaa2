// The map of changes as lines of text. Pure.
#pragma once

#include <cstddef>
#include <string>

#include "zelctl/change_map.h"

namespace zel::ctl {

struct TextMapLayout {
  std::size_t columns = 80;
  std::size_t lines = 24;
  bool ascii = false;  // otherwise UTF-8
};

// How many cells have room in the layout, with the offsets before each line and the legend.
[[nodiscard]] std::size_t CellsThatFit(const TextMapLayout& layout);

// The cells line by line, each line behind the offset that it begins with, a legend, and the
// totals. Leaves the last line of the terminal free; one of less than 40 columns or 8 lines counts
// as one of so many.
[[nodiscard]] std::string DrawMap(const ChangeMap& map, const TextMapLayout& layout);

// "4.7 MiB of 256.0 MiB (1.8 %)".
[[nodiscard]] std::string ChangedSizeText(const ChangeTotals& totals);

// "75 of 4096 blocks of 64.0 KiB, in 12 ranges".
[[nodiscard]] std::string ChangedBlocksText(const ChangeTotals& totals, std::uint32_t block_size);

}  // namespace zel::ctl
