// Setting a range of bits in a bitmap that others write at the same time.
//
// Threads: any number on one bitmap, without a lock; no bit that anyone sets is lost.
#pragma once

#include <cstdint>

namespace zel {

// Same layout as ntdll's RTL_BITMAP: bit i is bit i mod 8 of byte i / 8. Pure.
struct RtlBitmap {
  std::uint32_t SizeOfBitMap;  // bits
  std::uint32_t* Buffer;       // aligned to 8 bytes for SetBitsInRange
};

enum class SetBitsOutcome { kWithin, kClipped, kBeyond };

// Pure: sets the bits of [first, first + count) that lie inside the bitmap; no byte outside of it
// is touched. The outcome follows the 32-bit sum, which a range that wraps passes: callers pass
// none.
SetBitsOutcome SetBitsInRange(const RtlBitmap& bitmap, std::uint32_t first, std::uint32_t count);

// SetBitsInRange with the system's trace lines (Bitmap/Trace).
void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet);

}  // namespace zel
