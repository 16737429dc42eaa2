// Finding the bitmap files on disk at start.
#pragma once

#include <cstdint>
#include <string>

#include "files/types.h"

namespace zel {

// What a found file is handed to: AddBitmap. Its answer does not matter. Several threads call it at
// once.
using FoundBitmap = bool(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                         const std::wstring& file_name, std::uint32_t file_size);

// Calls found() for every bitmap file below the CBT directory: the bitmaps of one tracked file in
// the order of the file system, those of different files in any order. No file is opened where its
// directory tells its id; files whose id cannot be read are left out. Every call of found() has
// ended when this returns.
void FindBitmapFiles(const std::wstring& cbt_directory, FoundBitmap* found);

}  // namespace zel
