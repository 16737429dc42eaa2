// The first bytes of a new bitmap. Not here: its paths (files/layout.h). Pure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bitmap/format/bitmap_header.h"
#include "files/types.h"

namespace zel {

struct NewBitmap {
  VolumeGuid volume_guid;  // of the tracked file
  FileId file_id;          // of the tracked file
  FileTime creation_time;
  std::uint32_t bitmap_size;  // bytes
  std::uint32_t block_size;   // bytes of the tracked file per bit
  std::uint64_t file_size;    // bytes of the tracked file
};

// What is written at the file's start: the header and, as writers have always done, eight zero
// bytes after it. The file's end is set afterwards.
struct NewBitmapBytes {
  BitmapFileHeader header;
  std::uint8_t zeros[8];
};
static_assert(sizeof(NewBitmapBytes) == 520);
[[nodiscard]] NewBitmapBytes ComposeNewBitmapBytes(const NewBitmap& bitmap, BitmapId bitmap_id);

// The file's length: a 32-bit sum, as everywhere. A size that makes it wrap gives a file too short
// for its header, which the first lookup finds corrupted.
[[nodiscard]] constexpr std::uint32_t NewBitmapLength(std::uint32_t bitmap_size) {
  return kBitmapHeaderSize + bitmap_size;
}

}  // namespace zel
