// The map of changes as a picture. Pure.
#pragma once

#include <cstddef>

#include "zelctl/change_map.h"
#include "zelctl/png_writer.h"

namespace zel::ctl {

// The most cells that a picture shows.
inline constexpr std::size_t kMostPictureCells = std::size_t{128} * 64;

// The cells line by line as squares, about twice as many in a line as there are lines: light grey
// for unchanged, from yellow to dark red the more of the cell changed; white behind the last one.
// Offsets before the lines, a legend and the totals below, as DrawMap has them. A map of at most
// kMostPictureCells cells.
[[nodiscard]] Picture PaintMap(const ChangeMap& map);

}  // namespace zel::ctl
