// What a test and the processes that it starts call the same: registry keys of the driver, and the
// volume of tests/integration/support/module_host.cpp.
#pragma once

#include "files/types.h"

namespace zel::test {

inline constexpr wchar_t kDriverKey[] =
    LR"(SYSTEM\CurrentControlSet\Services\VelmoraActivityMonitor)";
inline constexpr wchar_t kTrackedListKey[] =
    LR"(SYSTEM\CurrentControlSet\Services\VelmoraActivityMonitor\Parameters\TrackedFileList)";

inline constexpr VolumeGuid kHostVolume = {0x5A454C5F, 0x484F, 0x5354, {0, 1, 2, 3, 4, 5, 6, 7}};

}  // namespace zel::test
