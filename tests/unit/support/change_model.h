// What a bitmap is expected to say of the changes that were reported: a field for each bit, which
// knows nothing of how bits are computed; and random reports to try it with.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <random>
#include <vector>

namespace zel::test {

inline constexpr std::uint32_t kModelBlockSizes[] = {1,      3,          512,       4096,
                                                     65'536, 0x80000000, 0xFFFFFFFF};
inline constexpr std::uint64_t k4G = std::uint64_t{1} << 32;

// Of a bit or a mark. Reports only raise it.
enum class Expected : std::uint8_t { kClear, kEither, kSet };

inline void Raise(Expected& expected, Expected to) {
  expected = std::max(expected, to);
}

[[nodiscard]] inline bool Agrees(Expected expected, bool is_set) {
  return expected == Expected::kEither || is_set == (expected == Expected::kSet);
}

class ModelBitmap {
 public:
  ModelBitmap(std::uint64_t file_size, std::uint32_t block_size, std::size_t bits)
      : file_size_(file_size), block_size_(block_size), bits_(bits) {}

  // `reported`: kEither for a report that the bitmap may have been too young for.
  void Write(std::uint64_t offset, std::uint32_t length, Expected reported = Expected::kSet) {
    // A write of no bytes counts as a byte where it stands, unless a block begins there.
    const bool counts = length > 0 || offset % block_size_ != 0;
    const std::uint64_t end = EndOf(offset, std::max(length, counts ? 1u : 0u));
    for (std::size_t block = 0; block < bits_.size(); ++block) {
      const std::uint64_t begin_of_block = std::uint64_t{block} * block_size_;
      if (offset < begin_of_block + block_size_ && begin_of_block < end) {
        Raise(bits_[block], reported);
      }
    }
    const std::uint64_t end_of_bitmap = std::uint64_t{bits_.size()} * block_size_;
    if (end > end_of_bitmap) Raise(size_changed, reported);
    if (offset / block_size_ >= k4G) WriteToCutBlocks(offset, length);
  }

  void Resize(std::uint64_t size, Expected reported = Expected::kSet) {
    if (size == file_size_) return;
    Raise(size_changed, reported);
    if (size > file_size_) return;
    for (std::size_t block = 0; block < bits_.size(); ++block) {
      if (std::uint64_t{block + 1} * block_size_ > size) Raise(bits_[block], reported);
    }
  }

  [[nodiscard]] Expected bit(std::size_t bit) const { return bits_[bit]; }
  [[nodiscard]] std::size_t bits() const { return bits_.size(); }

  Expected size_changed = Expected::kClear;
  Expected unreliable = Expected::kClear;

 private:
  // No bitmap here reaches as far as where this stops to be the sum.
  static std::uint64_t EndOf(std::uint64_t offset, std::uint64_t length) {
    return offset > ~std::uint64_t{0} - length ? ~std::uint64_t{0} : offset + length;
  }

  // Block numbers above 32 bits: the bits of their low halves, and no promise about them.
  void WriteToCutBlocks(std::uint64_t offset, std::uint32_t length) {
    const std::uint64_t first = offset / block_size_ % k4G;
    const std::uint64_t blocks = (offset % block_size_ + length) / block_size_ + 1;
    for (std::size_t block = 0; block < bits_.size(); ++block) {
      if (block >= first && block < first + blocks) Raise(bits_[block], Expected::kEither);
    }
  }

  std::uint64_t file_size_;
  std::uint32_t block_size_;
  std::vector<Expected> bits_;
};

// Numbers of reports, with a preference for the neighbourhood of what bitmaps end with.
class RandomReports {
 public:
  explicit RandomReports(unsigned seed) : random_(seed) {}

  std::uint64_t operator()() { return random_(); }

  std::uint32_t BlockSize() { return kModelBlockSizes[random_() % std::size(kModelBlockSizes)]; }
  std::uint64_t Size() {
    switch (random_() % 4) {
      case 0:
        return random_() >> random_() % 64;
      case 1:
        return k4G - 2 + random_() % 5;
      default:
        return std::uint64_t{BlockSize()} * (random_() % 140) + random_() % 3;
    }
  }
  std::uint64_t Offset() { return Size() - (random_() % 4 == 0 ? 1 : 0); }
  std::uint32_t Length() { return static_cast<std::uint32_t>(random_() >> 32 >> random_() % 33); }

 private:
  std::mt19937_64 random_;
};

}  // namespace zel::test
