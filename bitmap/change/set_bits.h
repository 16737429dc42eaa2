// Setting a range of bits in a bitmap that others write at the same time.
//
// Pure. Bits are never cleared, which is what makes it cheap: a word that has its bits is only
// read, a word of all ones is only stored, and what is left is one atomic OR for the first and one
// for the last word of a range. Cost: those two, and a store for each 16 bytes between them.
//
// Threads: any number on one bitmap, without a lock; no bit that anyone sets is lost.
#pragma once

#include <cstdint>

namespace zel {

// Same layout as ntdll's RTL_BITMAP: bit i is bit i mod 8 of byte i / 8.
struct RtlBitmap {
  std::uint32_t SizeOfBitMap;  // bits
  std::uint32_t* Buffer;       // aligned to 8 bytes for SetBitsInRange
};

enum class SetBitsOutcome { kWithin, kClipped, kBeyond };

// Sets the bits of [first, first + count) that lie inside the bitmap; no byte outside of it
// is touched. The outcome follows the 32-bit sum, which a range that wraps passes: callers pass
// none.
SetBitsOutcome SetBitsInRange(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t count);

}  // namespace zel
