// What a bitmap must say, found without the product's code: bitmap files as docs/file-format.md has
// them, read by offsets, and the comparison of a file's blocks. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>

namespace zel::prove {

using Blocks = std::set<std::uint64_t>;
using ByteSpan = std::span<const std::byte>;

struct BitmapCopy {
  std::uint32_t block_size;
  std::uint64_t file_size;
  bool closed_cleanly;
  bool size_changed;
  bool unreliable;
  Blocks set;  // numbers of the file's blocks; bits past its last block are left out
};

// Nothing for bytes that are no bitmap of version 22.
[[nodiscard]] std::optional<BitmapCopy> ReadBitmap(ByteSpan bytes);

// The blocks of `before` that differ in `after`; those that `after` lacks differ.
[[nodiscard]] Blocks DifferingBlocks(ByteSpan before, ByteSpan after, std::size_t block_size);

// Adds the blocks that a write touches; length > 0.
void AddWrite(Blocks& blocks, std::uint64_t offset, std::uint64_t length, std::uint64_t block_size);

// Empty when both are equal; otherwise how many are in one alone, and the first of them.
[[nodiscard]] std::string Difference(const Blocks& expected, const Blocks& found);

// Those of `expected` that `found` lacks, as Difference tells them; more may be found.
[[nodiscard]] std::string Missing(const Blocks& expected, const Blocks& found);

}  // namespace zel::prove
