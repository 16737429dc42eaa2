#include "bitmap/change/block_range.h"

#include <limits>

namespace zel {

BlockRange BlocksOfWrite(std::uint64_t offset, std::uint32_t length, std::uint32_t block_size) {
  const std::uint64_t inside = offset % block_size;
  // Three numbers below 2^32, so neither the sum nor the quotient passes what it is kept in: only
  // blocks of one byte reach a count of 2^32 - 1.
  const std::uint64_t count = (std::uint64_t{block_size} + length + inside - 1) / block_size;
  return {offset / block_size, static_cast<std::uint32_t>(count)};
}

BitsToSet BitsOfBlocks(BlockRange blocks, std::uint32_t bit_count) {
  BitsToSet result = {};
  const auto first = static_cast<std::uint32_t>(blocks.first);
  result.first_cut = blocks.first > std::numeric_limits<std::uint32_t>::max();
  // In 64 bits: a 32-bit sum that wraps would pass for one that fits.
  const bool sum_passes_end = std::uint64_t{first} + blocks.count > bit_count;
  result.passes_end = sum_passes_end || result.first_cut;
  if (!sum_passes_end) {
    // An empty bitmap has no byte to touch, not even for an empty range.
    if (bit_count > 0) result.bits = {first, blocks.count};
  } else if (first < bit_count) {
    result.bits = {first, bit_count - first};
  }
  return result;
}

std::optional<BitRange> BitsFromNewEnd(std::uint64_t new_size, std::uint64_t old_size,
                                       std::uint32_t block_size, std::uint32_t bit_count) {
  if (new_size >= old_size) return std::nullopt;
  const std::uint64_t first = new_size / block_size;
  if (first >= bit_count) return std::nullopt;
  return BitRange{static_cast<std::uint32_t>(first), bit_count - static_cast<std::uint32_t>(first)};
}

}  // namespace zel
