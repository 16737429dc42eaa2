// Describing and setting bits in the system's way: with ntdll's routines, which are not in every
// import library, and with trace lines.
//
// Threads: any thread; two that look the routines up at once store the same values.
#pragma once

#include <cstdint>

#include "bitmap/change/set_bits.h"

namespace zel {

// Makes `bitmap` the descriptor of `bits` bits at `buffer`. It stays as it is when ntdll does not
// have RtlInitializeBitMap, or cannot be found, which is logged.
void DescribeBits(RtlBitmap& bitmap, std::uint32_t* buffer, std::uint32_t bits);

// SetBitsInRange with the trace lines (Bitmap/Trace).
void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet);

}  // namespace zel
