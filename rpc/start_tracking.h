// Starting the tracking of a file with a new bitmap: whoever is answered 0 has a bitmap, in a file
// that is tracked and that the driver has shown to be so.
//
// Threads: any, several at once; without TrackedFilesLock and bitmapCacheLock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bitmap/format/bitmap_header.h"
#include "files/types.h"

namespace zel {

struct FileToTrack {
  std::wstring path;
  VolumeGuid volume_guid;
  FileId file_id;
  std::uint64_t size;  // in bytes
};

// The bitmap that a start has made, as it lies on the device.
struct StartedBitmap {
  BitmapFileHeader header;
  std::uint32_t file_size;  // of the bitmap's own file, in bytes
};

// Makes the file tracked and a bitmap of it, one bit for `block_size` bytes; a file that was not
// tracked before is verified, and given up when the driver does not show that it tracks it.
// `bitmap` is set when the answer is 0. Somebody else's stop of tracking, or deletion of all
// bitmaps, may come in between: then it begins anew, a few times.
// A Win32 code, 0 for success; each failure has been logged, but for ERROR_SHUTDOWN_IN_PROGRESS.
// ERROR_INSUFFICIENT_BUFFER for a file that is too small to be tracked, ERROR_MEDIA_CHANGED for one
// that conflicts with the list of tracked files, 1 without a bitmap. No code for a block of 0
// bytes, of which no number fills the file; it is tracked then all the same.
[[nodiscard]] std::optional<std::uint32_t> StartTrackingWithBitmap(const FileToTrack& file,
                                                                   std::uint32_t block_size,
                                                                   StartedBitmap& bitmap);

}  // namespace zel
