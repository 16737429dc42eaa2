// One pass of the cleanup over one volume's bitmap directories.
//
// A file may become tracked at any time. A pass therefore asks once more before each deletion, when
// it knows the name: a bitmap that it can name was made after its file had become tracked, so that
// the question comes after that, too. What a start of tracking can lose to a pass is an empty
// directory, between two steps of making its bitmap (bitmap/create_bitmap.h makes it again).
//
// A link is never followed: where it stands for a directory or a file that goes, the link goes.
//
// Threads: any thread; TrackedFilesLock is taken for the look-ups only, never while deleting.
// Errors: what cannot be deleted stays, without a message; the next pass tries again.
#pragma once

#include <functional>
#include <string>

#include "files/types.h"

namespace zel {

// Deletes the directory of every file id that is not tracked on this volume, and the volume's own
// when no file of it is tracked and nothing is left in it. Anything that is not called as a file
// id's directory stays. When the tracked files are to end it returns before the next entry.
void CleanVolumeDirectory(const VolumeGuid& volume_guid);

// Deletes a directory with everything in it. Asks before each deletion, and leaves the rest, false,
// when it may not.
bool DeleteDirectoryTree(const std::wstring& path, const std::function<bool()>& may_delete);

}  // namespace zel
