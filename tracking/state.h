// What table, list and cleanup share. Private to tracking/.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "files/types.h"
#include "tracking/tracked_file_table.h"
#include "tracking/volume_list.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

namespace zel {

using TrackedFileTable = std::map<VolumeGuid, std::shared_ptr<VolumeFileList>>;

// As the lists order paths: those that differ only in the case of A to Z are the same.
struct PathOrder {
  using is_transparent = void;
  bool operator()(std::wstring_view a, std::wstring_view b) const { return PathLess(a, b); }
};

struct TrackedFilesState {
  TrackedFileTable table ZEL_GUARDED_BY(TrackedFilesLock);
  UniqueRegistryKey TrackedFileListKey ZEL_GUARDED_BY(TrackedFilesLock);
  // The volumes whose value under their own name holds nothing that the table lacks.
  std::set<VolumeGuid> VolumesRead ZEL_GUARDED_BY(TrackedFilesLock);
  UniqueThread CleanupThread ZEL_GUARDED_BY(TrackedFilesLock);
  UniqueEvent CleanupWakeEvent ZEL_GUARDED_BY(TrackedFilesLock);  // manual reset
  // The paths of new files whose start has not ended (EndTrackingStart).
  std::multiset<std::wstring, PathOrder> StartsInHand ZEL_GUARDED_BY(TrackedFilesLock);
  bool CleanupShutdown ZEL_GUARDED_BY(TrackedFilesLock) = false;  // asks the thread to end
};

// Never destroyed: threads may still use it while the process ends.
[[nodiscard]] TrackedFilesState& TrackedFiles();

// Asks the cleanup thread, if it runs, for another pass.
void WakeCleanupThread() ZEL_REQUIRES(TrackedFilesLock);

}  // namespace zel
