#include "bitmap/set_bits.h"

#include <algorithm>
#include <atomic>

namespace zel {

namespace {

constexpr std::uint64_t kWordBits = 64;

// The bits of a bitmap, counted from the 64-bit word in which its buffer begins: 32 bits before
// the buffer when that is aligned to 4 bytes only. Words that reach beyond the bitmap's bytes are
// never touched: the mapping may end there.
class BitArea {
 public:
  explicit BitArea(const RtlBitmap& bitmap) {
    const auto address = reinterpret_cast<std::uintptr_t>(bitmap.Buffer);
    const std::uint64_t bytes = (std::uint64_t{bitmap.SizeOfBitMap} + 7) / 8;
    lead_bytes_ = address % sizeof(std::uint64_t);
    words_ = reinterpret_cast<std::uint64_t*>(address - lead_bytes_);
    whole_end_ = (lead_bytes_ + bytes) / sizeof(std::uint64_t);
  }

  // Sets `count` > 0 bits from `first`, or only writes to the first's byte when it is 0.
  void Set(std::uint64_t first, std::uint64_t count) const {
    first += lead_bytes_ * 8;
    const std::uint64_t end = first + count;
    const std::uint64_t first_word = first / kWordBits;
    const std::uint64_t last_word = (std::max(end, first + 1) - 1) / kWordBits;
    const std::uint64_t head = ~std::uint64_t{0} << first % kWordBits;
    const std::uint64_t tail =
        end % kWordBits == 0 ? ~std::uint64_t{0} : ~(~std::uint64_t{0} << end % kWordBits);
    if (first_word == last_word) {
      Or(first_word, count == 0 ? 0 : head & tail, first / 8);
      return;
    }
    Or(first_word, head, first / 8);
    Fill(first_word + 1, last_word);
    Or(last_word, tail, last_word * sizeof(std::uint64_t));
  }

 private:
  // ORs `mask` into a word, `first_byte` and behind.
  void Or(std::uint64_t word, std::uint64_t mask, std::uint64_t first_byte) const {
    if (word < whole_end_ && (word > 0 || lead_bytes_ == 0)) [[likely]] {
      std::atomic_ref(words_[word]).fetch_or(mask, std::memory_order_relaxed);
      return;
    }
    auto* bytes = reinterpret_cast<std::uint8_t*>(words_);
    std::uint64_t rest = mask >> first_byte % sizeof(std::uint64_t) * 8;
    do {
      const auto byte_mask = static_cast<std::uint8_t>(rest);
      std::atomic_ref(bytes[first_byte++]).fetch_or(byte_mask, std::memory_order_relaxed);
      rest >>= 8;
    } while (rest != 0);
  }

  // A word that is all ones afterwards loses nobody's bits, so that a store does.
  void Fill(std::uint64_t begin, std::uint64_t end) const {
    for (std::uint64_t word = begin; word < end; ++word) {
      std::atomic_ref(words_[word]).store(~std::uint64_t{0}, std::memory_order_relaxed);
    }
  }

  std::uint64_t* words_;
  std::uint64_t lead_bytes_;
  std::uint64_t whole_end_;  // the first word that is not wholly the bitmap's
};

}  // namespace

SetBitsOutcome SetBitsInRange(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t count) {
  const std::uint32_t size = bitmap.SizeOfBitMap;
  // The outcome follows the 32-bit sum, as it always has; what is written is inside in any case.
  const bool passes_end = size < first + count;
  if (first < size) BitArea(bitmap).Set(first, std::min(count, size - first));
  if (!passes_end) return SetBitsOutcome::kWithin;
  return size < first ? SetBitsOutcome::kBeyond : SetBitsOutcome::kClipped;
}

}  // namespace zel
