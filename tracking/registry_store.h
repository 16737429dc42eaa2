// Inside tracking/. The tracked files in the registry: one value for each volume, which the
// service's next start reads back. Not here: the bytes of a value (tracking/volume_list_format.h).
//
// Threads: any thread; all but SaveVolumeFileList take TrackedFilesLock.
// Errors: logged where they arise, at General.
#pragma once

#include <windows.h>

#include "tracking/tracked_file_table.h"
#include "tracking/volume_list.h"
#include "win32/handles.h"

namespace zel {

// Hands the open key over, with the rights to read and to set values. Until then, and after
// CloseTrackedFileList, changes of the table stay in memory.
void SetTrackedFileListKey(UniqueRegistryKey key) ZEL_EXCLUDES(TrackedFilesLock);

// Fills the table with every value of the key. Called once, by the service's start. False when the
// enumeration ended with an error; what was read before it is kept.
[[nodiscard]] bool LoadTrackedFileList() ZEL_EXCLUDES(TrackedFilesLock);

// Writes the value of one volume, or deletes it when the list is empty. Does nothing without a key.
// The caller holds TrackedFilesLock when the list is one of the table's.
void SaveVolumeFileList(const VolumeFileList& list, HKEY key);

// Closes the key and empties the table; the registry keeps its values. Not while the cleanup thread
// runs, which would find every file untracked: ShutdownTrackedFiles is the call to use.
void CloseTrackedFileList() ZEL_EXCLUDES(TrackedFilesLock);

}  // namespace zel
