// What a bitmap says of a tracked file: the bytes that may have changed since it was created. Pure.
//
// Changed is the block of every bit that is set, and whatever lies behind the blocks that the
// bitmap covers: where the file has grown, nobody kept bits. The service counts blocks in 32 bits,
// so no bitmap covers more than 2^32 - 1 of them.
#pragma once

#include <cstdint>
#include <optional>

#include "zelctl/bitmap_file.h"

namespace zel::ctl {

struct ByteRange {
  std::uint64_t offset;
  std::uint64_t length;  // not 0

  [[nodiscard]] std::uint64_t end() const { return offset + length; }
  bool operator==(const ByteRange&) const = default;
};

// Walks the changed ranges of a file that has `file_size` bytes now: ascending, with gaps between
// them, within the file. Lifetime: borrows the bitmap.
//
//   ChangedRanges ranges(bitmap, size);
//   for (ByteRange range; ranges.Next(range);) ...
class ChangedRanges {
 public:
  ChangedRanges(const BitmapFile& bitmap, std::uint64_t file_size);

  [[nodiscard]] bool Next(ByteRange& range);

 private:
  [[nodiscard]] std::uint64_t FindBit(std::uint64_t from, bool value) const;

  const BitmapFile& bitmap_;
  std::uint64_t file_size_;
  std::uint64_t blocks_;       // that the bitmap covers
  std::uint64_t covered_end_;  // the byte behind them, at most the file's size at creation
  std::uint64_t next_block_ = 0;
  bool at_end_ = false;
};

// Where the changed range ends that has this byte; none when the byte has not changed.
[[nodiscard]] std::optional<std::uint64_t> EndOfChange(const BitmapFile& bitmap,
                                                       std::uint64_t file_size, std::uint64_t at);

struct ChangeTotals {
  std::uint64_t file_size;
  std::uint64_t blocks;  // of the file, the last one perhaps short
  std::uint64_t changed_bytes;
  std::uint64_t changed_blocks;  // touched by a changed range
  std::uint64_t ranges;

  bool operator==(const ChangeTotals&) const = default;
};
[[nodiscard]] ChangeTotals CountChanges(const BitmapFile& bitmap, std::uint64_t file_size);

}  // namespace zel::ctl
