#include "bitmap/change/set_bits.h"

#include <emmintrin.h>

#include <algorithm>
#include <atomic>

// Plain stores of all ones lose nobody's bits, whatever they meet; ThreadSanitizer cannot know.
#if defined(__clang__)
#define ZEL_UNWATCHED_BY_TSAN __attribute__((no_sanitize("thread")))
#else
#define ZEL_UNWATCHED_BY_TSAN
#endif

namespace zel {

namespace {

using Word = std::uint64_t;
constexpr Word kAllOnes = ~Word{0};
constexpr std::uint32_t kWordBits = 64;

Word* Words(const RtlBitmap& bitmap) {
  return reinterpret_cast<Word*>(bitmap.Buffer);
}

// ORs `mask` into the bytes from the first one on, up to its highest bit.
void OrBytes(const RtlBitmap& bitmap, std::uint32_t first_byte, Word mask) {
  auto* byte = reinterpret_cast<std::uint8_t*>(bitmap.Buffer) + first_byte;
  do {
    std::atomic_ref(*byte++).fetch_or(static_cast<std::uint8_t>(mask), std::memory_order_relaxed);
    mask >>= 8;
  } while (mask != 0);
}

// ORs `mask` into the word of the bit `first`; what it holds for the bytes before is 0.
inline void OrWord(const RtlBitmap& bitmap, std::uint32_t first, Word mask) {
  const std::uint32_t bits_from_word = bitmap.SizeOfBitMap - first / kWordBits * kWordBits;
  // A last word that is not wholly the bitmap's is left alone: the mapping may end in it.
  if (bits_from_word > kWordBits - 8) [[likely]] {
    const std::atomic_ref word(Words(bitmap)[first / kWordBits]);
    // Bits that are set stay set. Blocks are often written several times in a row, and to read is
    // cheap, also for the other threads on these words.
    if ((word.load(std::memory_order_relaxed) & mask) == mask) return;
    word.fetch_or(mask, std::memory_order_relaxed);
  } else {
    OrBytes(bitmap, first / 8, mask >> first % kWordBits / 8 * 8);
  }
}

// 64 bytes, aligned to 16.
constexpr int kVectorsWords = 8;
ZEL_UNWATCHED_BY_TSAN void FillVectors(Word* words) {
  const __m128i ones = _mm_set1_epi32(-1);
  auto* const vectors = reinterpret_cast<__m128i*>(words);
  for (int i = 0; i < 4; ++i) _mm_store_si128(vectors + i, ones);
}

// Stores all ones. Mostly as vectors: a loop of atomic words has two thirds of memset's bandwidth.
void FillWords(Word* begin, Word* end) {
  const auto store = [](Word& word) {
    std::atomic_ref(word).store(kAllOnes, std::memory_order_relaxed);
  };
  while (begin != end && reinterpret_cast<std::uintptr_t>(begin) % 16 != 0) store(*begin++);
  for (; end - begin >= kVectorsWords; begin += kVectorsWords) {
    FillVectors(begin);
    // Else the loop may become a call of memset, whose order and granularity are its own.
    std::atomic_signal_fence(std::memory_order_acq_rel);
  }
  while (begin != end) store(*begin++);
}

// Sets [first, end), which lies inside the bitmap and in several words.
void SetWords(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t end) {
  OrWord(bitmap, first, kAllOnes << first % kWordBits);
  if (end % kWordBits != 0)
    OrWord(bitmap, end / kWordBits * kWordBits, ~(kAllOnes << end % kWordBits));
  FillWords(Words(bitmap) + first / kWordBits + 1, Words(bitmap) + end / kWordBits);
}

// Sets [first, end), which lies inside the bitmap; reads the byte of `first` in any case.
inline void SetInside(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t end) {
  if (first / kWordBits != end / kWordBits) {
    SetWords(bitmap, first, end);
  } else {
    OrWord(bitmap, first, (kAllOnes << first % kWordBits) & ~(kAllOnes << end % kWordBits));
  }
}

// A range that reaches the bitmap's end or beyond.
SetBitsOutcome SetToEnd(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t count) {
  const std::uint32_t size = bitmap.SizeOfBitMap;
  if (first < size) SetInside(bitmap, first, first + std::min(count, size - first));
  // The outcome follows the 32-bit sum, as it always has; what is written is inside in any case.
  if (first + count <= size) return SetBitsOutcome::kWithin;
  return size < first ? SetBitsOutcome::kBeyond : SetBitsOutcome::kClipped;
}

}  // namespace

SetBitsOutcome SetBitsInRange(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t count) {
  const std::uint64_t end = std::uint64_t{first} + count;
  if (end >= bitmap.SizeOfBitMap) [[unlikely]] {
    return SetToEnd(bitmap, first, count);
  }
  SetInside(bitmap, first, static_cast<std::uint32_t>(end));
  return SetBitsOutcome::kWithin;
}

}  // namespace zel
