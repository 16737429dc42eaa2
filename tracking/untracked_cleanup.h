// The thread that deletes the bitmap directories of files that are no longer tracked, and the end
// of the tracked files. Not here: what one pass does (tracking/clean_volume_directory.h).
//
// Threads: any thread, also several at once, but not the cleanup thread itself. The caller holds
// none of the system's locks.
#pragma once

namespace zel {

// Starts the thread: a pass at once, another after each change of the table and after 60 seconds
// without one. Called when the list has been loaded; not called again before ShutdownTrackedFiles.
// May take GetCbtDirectory's 15 s. False, without a message, when the list is closed again or the
// system has no event or no thread left: nothing is then cleaned up.
bool StartCleanupThread();

// Asks the thread, if it runs, for another pass.
void WakeCleanup();

// Ends the cleanup thread, if there is one, before the next entry of its running pass; a call of
// the file system that takes longer than a second is cut off with the thread. Then closes the list
// and empties the table. Harmless when it is called again, and when several threads call it at
// once: each returns when all of it is done.
void ShutdownTrackedFiles();

}  // namespace zel
