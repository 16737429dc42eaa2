// Opening the list of tracked files when the service starts. Its end is ShutdownTrackedFiles.
#pragma once

namespace zel {

// Deletes the keys that former versions kept their lists in. A key that is not there, or cannot be
// deleted, is passed over.
void DeleteObsoleteRegistryKeys();

// Opens the key of the tracked file list, making it where it is missing, loads the list and starts
// the cleanup thread. Without the key, which is logged, nothing is tracked until tracking is
// started again, and nothing is remembered; a list that cannot be read to its end has no cleanup,
// which would take the files that were not read for untracked.
void StartTrackedFiles();

}  // namespace zel
