// From a report in bytes of the tracked file to bits of one of its bitmaps. Pure.
//
// Offsets and sizes are whatever the driver reports: any 64-bit number. block_size > 0.
#pragma once

#include <cstdint>
#include <optional>

namespace zel {

// Blocks [first, first + count) of a file of any size.
struct BlockRange {
  std::uint64_t first;
  std::uint32_t count;

  friend bool operator==(const BlockRange&, const BlockRange&) = default;
};

// The blocks that a write of `length` bytes at `offset` touches. A write of no bytes touches the
// block that it starts inside of, and none when it starts where a block does.
[[nodiscard]] BlockRange BlocksOfWrite(std::uint64_t offset, std::uint32_t length,
                                       std::uint32_t block_size);

// Bits [first, first + count), all of them inside the bitmap.
struct BitRange {
  std::uint32_t first;
  std::uint32_t count;

  friend bool operator==(const BitRange&, const BitRange&) = default;
};

struct BitsToSet {
  std::optional<BitRange> bits;  // none: no block of the range has a bit
  bool passes_end;               // some block of the range has no bit
  bool first_cut;                // the first block's number has more than 32 bits
};

// What blocks are in a bitmap of `bit_count` bits. Bits are counted with 32 bits, so a first block
// above that is cut to its low half, and marks a block that nobody wrote to: harmless, and what
// readers of such bitmaps have always found. The range itself then passes the end in any case.
[[nodiscard]] BitsToSet BitsOfBlocks(BlockRange blocks, std::uint32_t bit_count);

// The bits from the block of a file's new end to the bitmap's end, when the file has become smaller
// than `old_size`. None when it has not, or when the new end has no bit.
[[nodiscard]] std::optional<BitRange> BitsFromNewEnd(std::uint64_t new_size, std::uint64_t old_size,
                                                     std::uint32_t block_size,
                                                     std::uint32_t bit_count);

}  // namespace zel
