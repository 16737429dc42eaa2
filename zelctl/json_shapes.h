// The parts of the JSON answers that several commands have (docs/zelctl.md). Pure.
#pragma once

#include "zelctl/bitmap_file.h"
#include "zelctl/changed_ranges.h"
#include "zelctl/commands.h"

namespace zel::ctl {

[[nodiscard]] Json BitmapJson(const BitmapEntry& bitmap, const std::string& path);
[[nodiscard]] Json HeaderJson(const BitmapFile& bitmap);
[[nodiscard]] Json TotalsJson(const ChangeTotals& totals);
[[nodiscard]] Json ErrorJson(const Failure& failure);

// "trusted", "unreliable", "in_use".
[[nodiscard]] std::string TrustWord(Trust trust);

}  // namespace zel::ctl
