// What a new bitmap is made of: its paths and its first bytes. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "bitmap/format/bitmap_header.h"
#include "common/types.h"

namespace zel {

// The longest path that the buffers of 260 characters take, terminator not counted.
inline constexpr std::size_t kMaxBitmapPath = 259;

struct NewBitmap {
  VolumeGuid volume_guid;  // of the tracked file
  FileId file_id;          // of the tracked file
  FileTime creation_time;
  std::uint32_t bitmap_size;  // bytes
  std::uint32_t block_size;   // bytes of the tracked file per bit
  std::uint64_t file_size;    // bytes of the tracked file
};

// The directories from the CBT directory down, each in the one before it, and the file.
struct NewBitmapPaths {
  std::wstring directories[3];
  std::wstring file;  // the longest; may be longer than kMaxBitmapPath
};
[[nodiscard]] NewBitmapPaths ComposeNewBitmapPaths(std::wstring_view cbt_directory,
                                                   std::wstring_view volume_text,
                                                   const NewBitmap& bitmap);

// What is written at the file's begin: the header and, as writers have always done, eight zero
// bytes behind it. The file's end is set afterwards.
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
