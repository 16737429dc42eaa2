// The bitmap routines of ntdll, which are not in every import library.
//
// Threads: any thread; two that resolve at once store the same values.
#pragma once

#include <atomic>

#include "bitmap/set_bits.h"

namespace zel {

using RtlInitializeBitMapFunction = void __stdcall(RtlBitmap* bitmap, std::uint32_t* buffer,
                                                   std::uint32_t bits);
using RtlAreBitsClearFunction = std::uint8_t __stdcall(RtlBitmap* bitmap, std::uint32_t first,
                                                       std::uint32_t count);
using RtlTestBitFunction = std::uint8_t __stdcall(RtlBitmap* bitmap, std::uint32_t bit);

// Null before ResolveNtdllBitmap, and for a routine that this ntdll does not have.
struct NtdllBitmap {
  std::atomic<bool> resolved;
  std::atomic<RtlInitializeBitMapFunction*> RtlInitializeBitMap;
  std::atomic<RtlAreBitsClearFunction*> RtlAreBitsClear;
  std::atomic<RtlTestBitFunction*> RtlTestBit;
};
extern NtdllBitmap ntdllBitmap;

[[nodiscard]] inline bool IsNtdllBitmapResolved() {
  return ntdllBitmap.resolved.load(std::memory_order_acquire);
}

// Looks the routines up, once per process. A failure is logged and leaves the next call to try
// again.
void ResolveNtdllBitmap();

}  // namespace zel
