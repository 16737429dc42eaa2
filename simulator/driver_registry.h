// What the driver keeps under its service's Parameters key. Test bench only.
#pragma once

#include <optional>

#include "simulator/tracked_list.h"

namespace zel::sim {

// The list of tracked files; empty without a key, nothing when a value is malformed.
[[nodiscard]] std::optional<TrackedFiles> ReadTrackedFiles();

// Whether the run before lost nothing; asked once, as the mark goes with the question.
[[nodiscard]] bool TakeCleanShutdownMark();
void LeaveCleanShutdownMark();

}  // namespace zel::sim
