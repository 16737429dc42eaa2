// How each bitmap is: whether it can be trusted and how much changed. Pure.
#pragma once

#include <string>

#include "zelctl/changed_ranges.h"
#include "zelctl/commands.h"

namespace zel::ctl {

struct BitmapState {
  std::string trust;  // as TrustWord says it; "damaged" for one that nobody can use
  ChangeTotals changed = {};
};

// As the service has it now; it is not synchronized first.
[[nodiscard]] MaybeFailure ReadState(Surroundings& with, const Request& request, BitmapId id,
                                     BitmapState& state);

// "45 s", "12 min", "7 h", "3 d".
[[nodiscard]] std::string FormatAge(FileTime begun, FileTime now);

}  // namespace zel::ctl
