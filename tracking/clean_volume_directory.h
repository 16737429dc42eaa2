// One pass of the cleanup over one volume's bitmap directories.
//
// Threads: any thread; TrackedFilesLock is taken for the look-ups only, never while deleting.
// Errors: what cannot be deleted stays, without a message; the next pass tries again.
#pragma once

#include <string>

#include "files/types.h"

namespace zel {

// Deletes the directory of every file id that is not tracked on this volume, and the volume's own
// when no file of it is tracked and nothing is left in it. Anything that is not called as a file
// id's directory stays.
void CleanVolumeDirectory(const VolumeGuid& volume_guid);

// Deletes a directory with everything in it.
void DeleteDirectoryTree(const std::wstring& path);

}  // namespace zel
