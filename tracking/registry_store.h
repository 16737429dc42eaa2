// Inside tracking/. The tracked files in the registry: one value for each volume, which the
// service's next start reads back. Not here: the bytes of a value (tracking/volume_list_format.h).
//
// A value is only written when it has been read whole, or is not there: it is never overwritten by
// a list that lacks what it held.
//
// Threads: any thread; all but SaveVolumeFileList and ReadMissingList take TrackedFilesLock.
// Errors: logged where they arise, at General.
#pragma once

#include <windows.h>

#include <cstdint>

#include "tracking/tracked_file_table.h"
#include "tracking/volume_list.h"
#include "win32/handles.h"

namespace zel {

// Hands the open key over, with the rights to read and to set values. Until then, and after
// CloseTrackedFileList, changes of the table stay in memory.
void SetTrackedFileListKey(UniqueRegistryKey key) ZEL_EXCLUDES(TrackedFilesLock);

// Fills the table with every value of the key. Called once, by the service's start. False when the
// enumeration ended with an error; what was read before it is kept, the rest is read when it is
// needed.
[[nodiscard]] bool LoadTrackedFileList() ZEL_EXCLUDES(TrackedFilesLock);

// Reads the value of one volume by its name, unless it has been read whole: what it holds joins the
// table, and may be overwritten from then on. 0, also when there is none, or the error, which is
// logged and leaves it unread. Does nothing without a key.
[[nodiscard]] std::uint32_t ReadMissingList(const VolumeGuid& volume_guid)
    ZEL_REQUIRES(TrackedFilesLock);

// Writes the value of one volume, or deletes it when the list is empty. Does nothing without a key.
// The caller holds TrackedFilesLock when the list is one of the table's.
void SaveVolumeFileList(const VolumeFileList& list, HKEY key);

// Closes the key and empties the table; the registry keeps its values. Not while the cleanup thread
// runs, which would find every file untracked: ShutdownTrackedFiles is the call to use.
void CloseTrackedFileList() ZEL_EXCLUDES(TrackedFilesLock);

}  // namespace zel
