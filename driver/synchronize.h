// Making the driver's view and the bitmaps agree at a point in time.
//
// Threads: any, several at once; without TrackedFilesLock and bitmapCacheLock. StopDriverThreads
// ends every wait at once.
// Errors: Win32 codes, 0 for success; each failure has been logged.
#pragma once

#include <cstdint>
#include <string>

#include "files/types.h"

namespace zel {

// Returns 0 when every message that the driver created up to `request_time` has been processed:
// what was written until then is in the bitmaps. ERROR_TIMEOUT when SyncTimeout seconds have passed
// without a message, or messages arrive from that long after the request;
// ERROR_SHUTDOWN_IN_PROGRESS when the service stops, or has no driver; or the HRESULT of a request
// that could not be sent.
[[nodiscard]] std::uint32_t Synchronize(FileTime request_time);

// Returns 0 when the driver has shown that it tracks the file, or when there is no file to look at.
// ERROR_TIMEOUT when it has not within SyncTimeout seconds; ERROR_SHUTDOWN_IN_PROGRESS as above; or
// the error of opening the file or of the control code.
[[nodiscard]] std::uint32_t VerifyFileIsTracked(const std::wstring& path,
                                                const VolumeGuid& volume_guid, FileId file_id);

// Takes the file from the list of tracked files, has the driver drop it, and deletes its bitmaps,
// those in use later. 0; ERROR_SHUTDOWN_IN_PROGRESS, not logged and nothing done, once the service
// is to stop; or the error of opening the file for the driver.
[[nodiscard]] std::uint32_t ForceTrackingStop(const std::wstring& path,
                                              const VolumeGuid& volume_guid, FileId file_id);

}  // namespace zel
