// Finding the bitmap files on disk at start.
#pragma once

#include <cstdint>
#include <string>

#include "common/types.h"

namespace zel {

// What a found file is handed to: AddBitmap. Its answer does not matter.
using FoundBitmap = bool(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                         const std::wstring& file_name, std::uint32_t file_size);

// Calls found() for every bitmap file below the CBT directory, in the order of the file system.
// Nothing is opened for its content. Files whose id cannot be read are left out.
void FindBitmapFiles(const std::wstring& cbt_directory, FoundBitmap* found);

}  // namespace zel
