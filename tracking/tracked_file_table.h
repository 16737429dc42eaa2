// Which files are tracked: the one table, in memory, and written through to the registry.
//
// Paths that differ only in the case of the letters A to Z are the same. A file id of 0 that is
// stored for a path counts as not tracked.
// Threads: any thread; every operation holds TrackedFilesLock for its whole run, the write to the
// registry included. Its caller may hold no lock that comes after it (docs/architecture.md).
// Errors: a registry that cannot be written is logged and otherwise ignored.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/types.h"
#include "win32/critical_section.h"

namespace zel {

// Guards the tracked files. Order: TrackedFilesLock, bitmapCacheLock, log lock.
extern CriticalSection TrackedFilesLock;

// Deletes the keys that former versions kept their lists in. A key that is not there, or cannot be
// deleted, is passed over.
void DeleteObsoleteRegistryKeys();

// Opens the key of the tracked file list, making it where it is missing, loads the list and starts
// the cleanup thread. Without the key, which is logged, nothing is tracked until tracking is
// started again, and nothing is remembered; a list that cannot be read to its end has no cleanup,
// which would take the files that were not read for untracked. Warns when the CBT directory is
// another one than at the last start.
void StartTrackedFiles();

// One tracked file, copied out.
struct TrackedFileEntry {
  std::wstring Path;
  zel::VolumeGuid VolumeGuid;
  zel::FileId FileId;

  friend bool operator==(const TrackedFileEntry&, const TrackedFileEntry&) = default;
};

// Reads the list of a volume from the registry if that has not been done: the service's start could
// not read it. Its files are then tracked as if it had. 0, or the registry's error, which is
// logged.
[[nodiscard]] std::uint32_t EnsureVolumeListIsRead(const VolumeGuid& volume_guid)
    ZEL_EXCLUDES(TrackedFilesLock);

// Whether some path of the volume has this id.
[[nodiscard]] bool IsTracked(const FileKey& file) ZEL_EXCLUDES(TrackedFilesLock);

// Records a file as tracked. `is_new` tells whether it was not so before, under this very volume
// and id; the start of a new file is in hand then until EndTrackingStart. False, and nothing
// changed, when the path is tracked under another volume or id, when it is too long to be stored,
// and when the volume's list has not been read and cannot be (it would be overwritten by less than
// it holds), all of which are logged; and once the service is to stop (win32/stop_requested.h).
[[nodiscard]] bool StartTrackingFile(std::wstring_view path, const VolumeGuid& volume_guid,
                                     FileId file_id, bool& is_new) ZEL_EXCLUDES(TrackedFilesLock);

// Whether a new file's start under this path has not ended: the driver may not know it yet.
[[nodiscard]] bool TrackingStartIsInHand(std::wstring_view path) ZEL_EXCLUDES(TrackedFilesLock);

// Ends the start of a new file: it stays tracked. False once the service is to stop: the stop takes
// it back, since the driver may never have been told of the file, and a later start, which would
// find it tracked, would not tell the driver either.
[[nodiscard]] bool EndTrackingStart(std::wstring_view path) ZEL_EXCLUDES(TrackedFilesLock);

// Removes the new files whose start is still in hand. Of the stop, before the list is closed.
void TakeBackTrackingStarts() ZEL_EXCLUDES(TrackedFilesLock);

// The first volume in the order of the GUIDs that tracks `path`. False, outputs unchanged, when
// none does.
[[nodiscard]] bool FindTrackedFile(std::wstring_view path, VolumeGuid& volume_guid, FileId& file_id)
    ZEL_EXCLUDES(TrackedFilesLock);

// Replaces `entries` by every tracked file, volumes in the order of their GUIDs and within each the
// paths in theirs.
void CollectTrackedFiles(std::vector<TrackedFileEntry>& entries) ZEL_EXCLUDES(TrackedFilesLock);

// Removes the path from every volume that has it, and returns the files that it has named. Nothing,
// and nothing changed, once the service is to stop.
std::optional<std::vector<FileKey>> StopTrackingFile(std::wstring_view path)
    ZEL_EXCLUDES(TrackedFilesLock);

}  // namespace zel
