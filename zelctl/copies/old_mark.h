// The mark that the tool's first version left beside a copy while it was changing it:
// COPY.zelctl-apply. Pure.
//
// That version knew nothing else of a copy: where its mark is, the copy is half way.
#pragma once

#include <string>

#include "zelctl/copies/copy_place.h"
#include "zelctl/failure.h"

namespace zel::ctl {

// The mark's path; empty where there is none. A file of that name that is no mark is somebody's.
[[nodiscard]] MaybeFailure FindOldMark(Machine& machine, const CopyPlace& place, std::string& mark);

// No failure where there is none.
[[nodiscard]] MaybeFailure RemoveOldMark(Machine& machine, const CopyPlace& place);

}  // namespace zel::ctl
