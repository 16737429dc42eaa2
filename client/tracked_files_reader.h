// Reading a TrackedFilesStream: every tracked file and its bitmaps. Pure.
//
// Format: docs/rpc-interface.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel {

struct TrackedFile {
  struct Bitmap {
    std::uint32_t file_size;  // bytes of the bitmap file
    FileTime creation_time;
    BitmapId bitmap_id;

    bool operator==(const Bitmap&) const = default;
  };

  FileKey key;
  std::wstring path;
  std::vector<Bitmap> bitmaps;

  bool operator==(const TrackedFile&) const = default;
};

// Replaces `files` by what the stream says. Null for success; otherwise what is wrong with the
// stream: `files` holds those before the fault then.
[[nodiscard]] const char* ReadTrackedFiles(std::span<const std::byte> stream,
                                           std::vector<TrackedFile>& files);

}  // namespace zel
