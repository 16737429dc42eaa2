// How large a bitmap is, and the first bytes of a new one. Not here: its paths (files/layout.h).
// Pure.
//
// Units: bytes, unless a name says blocks or bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "bitmap/format/bitmap_header.h"
#include "files/types.h"

namespace zel {

// The blocks of a tracked file, the last one perhaps short. block_size > 0.
[[nodiscard]] std::uint64_t CountBlocks(std::uint64_t file_size, std::uint32_t block_size);

// The bytes of a bitmap with one bit for each of those blocks. None when the bitmap file would be
// longer than its 32-bit length can say. block_size > 0.
[[nodiscard]] std::optional<std::uint32_t> ComputeBitmapSize(std::uint64_t file_size,
                                                             std::uint32_t block_size);

// Whether header and bits lie within a file of `file_size` bytes, whatever the header says.
[[nodiscard]] bool FitsBitmapFile(std::uint32_t bitmap_size, std::uint32_t file_size);

// The bits of `bitmap_size` bytes; of 512 MiB and more, as many as a 32-bit number can count.
[[nodiscard]] std::uint32_t CountBits(std::uint32_t bitmap_size);

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
