// A file as a row of cells, each with the share of it that changed. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zelctl/changed_ranges.h"

namespace zel::ctl {

struct ChangeMap {
  ChangeTotals totals;
  std::uint32_t block_size;
  std::vector<double> shares;  // 0 to 1, one for each cell

  // The byte that the cell begins with; one behind the last cell, the file's size.
  [[nodiscard]] std::uint64_t CellBegin(std::size_t cell) const;
};

// At most `most_cells` cells, less than 2^32, each of whole blocks and as many as the others or one
// more; a file with fewer blocks has one cell for each.
[[nodiscard]] ChangeMap MakeChangeMap(const BitmapFile& bitmap, std::uint64_t file_size,
                                      std::size_t most_cells);

}  // namespace zel::ctl
