#include "prove/oracle.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace zel::prove {

namespace {

constexpr std::size_t kHeaderBytes = 0x200;
constexpr std::uint32_t kMagic = 0x624C455A;
constexpr std::uint16_t kVersion = 22;

template <class Number>
Number At(ByteSpan bytes, std::size_t offset) {
  Number number = 0;
  for (std::size_t i = sizeof number; i-- > 0;) {
    number = static_cast<Number>(number << 8 | std::to_integer<Number>(bytes[offset + i]));
  }
  return number;
}

std::string Told(const char* what, const Blocks& blocks) {
  if (blocks.empty()) return {};
  return std::to_string(blocks.size()) + " blocks " + what + ", the first is block " +
         std::to_string(*blocks.begin()) + "\n";
}

Blocks InFirstAlone(const Blocks& first, const Blocks& second) {
  Blocks alone;
  std::ranges::set_difference(first, second, std::inserter(alone, alone.end()));
  return alone;
}

}  // namespace

std::optional<BitmapCopy> ReadBitmap(ByteSpan bytes) {
  if (bytes.size() < kHeaderBytes || At<std::uint32_t>(bytes, 0x00) != kMagic ||
      At<std::uint16_t>(bytes, 0x06) != kVersion) {
    return std::nullopt;
  }
  BitmapCopy copy = {At<std::uint32_t>(bytes, 0x38), At<std::uint64_t>(bytes, 0x48),
                     bytes[0x3C] == std::byte{1},    bytes[0x3E] == std::byte{1},
                     bytes[0x3F] == std::byte{1},    {}};
  const std::uint64_t bit_bytes = At<std::uint32_t>(bytes, 0x40);
  if (copy.block_size == 0 || bytes.size() != kHeaderBytes + bit_bytes) return std::nullopt;
  const std::uint64_t blocks =
      copy.file_size / copy.block_size + (copy.file_size % copy.block_size != 0 ? 1 : 0);
  if (bit_bytes != (blocks + 7) / 8) return std::nullopt;
  for (std::uint64_t block = 0; block < blocks; ++block) {
    const auto byte = std::to_integer<unsigned>(bytes[kHeaderBytes + block / 8]);
    if ((byte >> block % 8 & 1) != 0) copy.set.insert(block);
  }
  return copy;
}

Blocks DifferingBlocks(ByteSpan before, ByteSpan after, std::size_t block_size) {
  Blocks blocks;
  for (std::size_t at = 0; at < before.size(); at += block_size) {
    const ByteSpan old_block = before.subspan(at, std::min(block_size, before.size() - at));
    const ByteSpan new_block =
        at < after.size() ? after.subspan(at, std::min(block_size, after.size() - at)) : ByteSpan();
    if (!std::ranges::equal(old_block, new_block)) blocks.insert(at / block_size);
  }
  return blocks;
}

void AddWrite(Blocks& blocks, std::uint64_t offset, std::uint64_t length,
              std::uint64_t block_size) {
  for (std::uint64_t block = offset / block_size; block <= (offset + length - 1) / block_size;
       ++block) {
    blocks.insert(block);
  }
}

std::string Difference(const Blocks& expected, const Blocks& found) {
  return Missing(expected, found) + Told("too many", InFirstAlone(found, expected));
}

std::string Missing(const Blocks& expected, const Blocks& found) {
  return Told("missing", InFirstAlone(expected, found));
}

}  // namespace zel::prove
