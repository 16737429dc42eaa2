// The registry's list of tracked files as the driver reads it. Test bench only. Pure.
#pragma once

#include <optional>
#include <set>
#include <span>

#include "simulator/wire.h"

namespace zel::sim {

using TrackedFiles = std::set<FileKey>;

// Adds the files of one volume's value to `files`. Unlike the service, which trusts the value, the
// driver checks all of it: false when a byte is not as the format says.
[[nodiscard]] bool ReadTrackedList(std::span<const std::byte> value, const VolumeGuid& name,
                                   TrackedFiles& files);

}  // namespace zel::sim
