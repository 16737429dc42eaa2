// Making a new bitmap file.
#pragma once

#include <cstdint>

#include "files/types.h"

namespace zel {

// Makes the file of an empty bitmap, and the directories above it, and registers it with the
// manager; it is not loaded. `bitmap_size` in bytes, `block_size` in bytes of the tracked file per
// bit, `file_size` of the tracked file. `bitmap_id` is set as soon as the file has one.
// A directory that somebody takes meanwhile is made again, a few times and within some
// milliseconds. Errors: false; logged. What was made until then stays, is not registered, and is
// never trusted; nothing is made when the path is too long. Threads: any, without bitmapCacheLock.
[[nodiscard]] bool CreateNewBitmap(const VolumeGuid& volume_guid, FileId file_id,
                                   std::uint32_t bitmap_size, std::uint32_t block_size,
                                   std::uint64_t file_size, BitmapId& bitmap_id);

}  // namespace zel
