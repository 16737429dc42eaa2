#include "zelctl/change_map.h"

#include <algorithm>

namespace zel::ctl {

std::uint64_t ChangeMap::CellBegin(std::size_t cell) const {
  if (cell >= shares.size()) return totals.file_size;
  // blocks * cell / cells, in parts of which none overflows.
  const std::uint64_t each = totals.blocks / shares.size();
  const std::uint64_t more = totals.blocks % shares.size();
  return (each * cell + more * cell / shares.size()) * block_size;
}

ChangeMap MakeChangeMap(const BitmapFile& bitmap, std::uint64_t file_size, std::size_t most_cells) {
  ChangeMap map = {.totals = CountChanges(bitmap, file_size),
                   .block_size = bitmap.header.BlockSize,
                   .shares = {}};
  map.shares.resize(std::min<std::uint64_t>(map.totals.blocks, most_cells));
  std::size_t cell = 0;
  ChangedRanges ranges(bitmap, file_size);
  for (ByteRange range; ranges.Next(range);) {
    while (map.CellBegin(cell + 1) <= range.offset) ++cell;
    for (std::uint64_t at = range.offset; at < range.end(); ++cell) {
      const std::uint64_t end = std::min(map.CellBegin(cell + 1), range.end());
      const std::uint64_t size = map.CellBegin(cell + 1) - map.CellBegin(cell);
      map.shares[cell] += static_cast<double>(end - at) / static_cast<double>(size);
      at = end;
      if (at == range.end()) break;
    }
  }
  return map;
}

}  // namespace zel::ctl
