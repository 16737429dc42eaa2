// How large a bitmap is: from the tracked file's size, and what of it fits its own file. Pure.
//
// Units: bytes, unless a name says blocks or bits.
#pragma once

#include <cstdint>
#include <optional>

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

}  // namespace zel
