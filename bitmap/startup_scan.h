// Finding the bitmap files on disk at start, and later those that could not be read then.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel {

// What a found file is handed to: AddBitmap. Its answer does not matter. Several threads call it at
// once.
using FoundBitmap = bool(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                         const std::wstring& file_name, std::uint32_t file_size);

// A directory that has bitmap files, or directories of them: the CBT directory, a volume's in it or
// a tracked file's in that one.
struct BitmapDirectory {
  std::wstring path;
  std::optional<VolumeGuid> volume_guid = std::nullopt;  // none for the CBT directory
  FileId file_id = 0;                                    // 0 for a volume's and the CBT directory
};

// Asked before each directory and each call of found(): whether to leave the rest.
using LeavesOff = bool();

// Calls found() for every bitmap file below the directory: the bitmaps of one tracked file in the
// order of the file system, those of different files in any order. No file is opened where its
// directory tells its id. Every call of found() has ended when this returns. Returns the
// directories that could not be read to their end, or in which a file's id could not be read, or
// that were left: their bitmaps may be missing.
[[nodiscard]] std::vector<BitmapDirectory> FindBitmapFiles(
    const BitmapDirectory& directory, FoundBitmap* found,
    LeavesOff* leaves_off = [] { return false; });

}  // namespace zel
