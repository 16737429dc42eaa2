#include "zelctl/changed_ranges.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "bitmap/format/new_bitmap.h"

namespace zel::ctl {

namespace {

constexpr std::uint64_t kMostBlocks = 0xFFFFFFFF;

// 64 bits from the byte `at` on; zeros behind the last one.
std::uint64_t LoadWord(std::span<const std::byte> bits, std::size_t at) {
  static_assert(std::endian::native == std::endian::little);
  std::uint64_t word = 0;
  std::memcpy(&word, bits.data() + at, std::min(sizeof word, bits.size() - at));
  return word;
}

}  // namespace

ChangedRanges::ChangedRanges(const BitmapFile& bitmap, std::uint64_t file_size)
    : bitmap_(bitmap),
      file_size_(file_size),
      blocks_(std::min(CountBlocks(bitmap.header.FileSize, bitmap.header.BlockSize), kMostBlocks)),
      covered_end_(std::min(bitmap.header.FileSize, blocks_ * bitmap.header.BlockSize)) {}

// The first bit of that value from `from` on; blocks_ when there is none.
std::uint64_t ChangedRanges::FindBit(std::uint64_t from, bool value) const {
  const std::span<const std::byte> bits = bitmap_.bits();
  while (from < blocks_) {
    const std::uint64_t word = LoadWord(bits, from / 8);
    const std::uint64_t wanted = (value ? word : ~word) >> from % 8;
    if (wanted != 0) return std::min(from + std::countr_zero(wanted), blocks_);
    from += 64 - from % 8;
  }
  return blocks_;
}

bool ChangedRanges::Next(ByteRange& range) {
  if (at_end_) return false;
  const std::uint64_t block_size = bitmap_.header.BlockSize;
  const std::uint64_t first = FindBit(next_block_, true);
  const std::uint64_t behind = FindBit(first, false);
  next_block_ = behind;
  // A run that reaches the last covered block goes on into what is not covered.
  at_end_ = behind == blocks_;
  const std::uint64_t begin = first == blocks_ ? covered_end_ : first * block_size;
  const std::uint64_t end = at_end_ ? file_size_ : std::min(behind * block_size, file_size_);
  if (begin >= end) {
    at_end_ = true;
    return false;
  }
  range = {.offset = begin, .length = end - begin};
  return true;
}

std::optional<std::uint64_t> EndOfChange(const BitmapFile& bitmap, std::uint64_t file_size,
                                         std::uint64_t at) {
  ChangedRanges ranges(bitmap, file_size);
  for (ByteRange range; ranges.Next(range) && range.offset <= at;) {
    if (at < range.end()) return range.end();
  }
  return std::nullopt;
}

ChangeTotals CountChanges(const BitmapFile& bitmap, std::uint64_t file_size) {
  const std::uint64_t block_size = bitmap.header.BlockSize;
  ChangeTotals totals = {.file_size = file_size,
                         .blocks = CountBlocks(file_size, bitmap.header.BlockSize),
                         .changed_bytes = 0,
                         .changed_blocks = 0,
                         .ranges = 0};
  ChangedRanges ranges(bitmap, file_size);
  for (ByteRange range; ranges.Next(range);) {
    ++totals.ranges;
    totals.changed_bytes += range.length;
    totals.changed_blocks += (range.end() - 1) / block_size - range.offset / block_size + 1;
  }
  return totals;
}

}  // namespace zel::ctl
