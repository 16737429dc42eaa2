#include "bitmap/zel_set_bits.h"

#include <windows.h>

#include <atomic>

#include "logging/log_message.h"

namespace zel {

namespace {

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
constinit NtdllBitmap ntdllBitmap = {};

bool IsNtdllBitmapResolved() {
  return ntdllBitmap.resolved.load(std::memory_order_acquire);
}

template <class Function>
void LookUp(HMODULE ntdll, const char* name, std::atomic<Function*>& routine) {
  routine = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(ntdll, name)));
}

// Looks the routines up, once per process. A failure is logged and leaves the next call to try
// again.
void ResolveNtdllBitmap() {
  if (IsNtdllBitmapResolved()) return;
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  if (ntdll == nullptr) {
    LogMessage(kBitmapError, L"load library failed\n");
    return;
  }
  LookUp(ntdll, "RtlInitializeBitMap", ntdllBitmap.RtlInitializeBitMap);
  LookUp(ntdll, "RtlAreBitsClear", ntdllBitmap.RtlAreBitsClear);
  LookUp(ntdll, "RtlTestBit", ntdllBitmap.RtlTestBit);
  ntdllBitmap.resolved.store(true, std::memory_order_release);
}

void SetBitsWithTrace(const RtlBitmap* bitmap, std::uint32_t first, std::uint32_t count) {
  LogMessage(kBitmapTrace,
             L"ZelSetBits(BitmapHeader = 0x%p, StartingIndex = 0x%x, NumberToSet = 0x%x\n", bitmap,
             first, count);
  if (SetBitsInRange(*bitmap, first, count) != SetBitsOutcome::kWithin) {
    LogMessage(kBitmapTrace, L"write beyond end of bitmap\n");
  }
  ResolveNtdllBitmap();
}

}  // namespace

void DescribeBits(RtlBitmap& bitmap, std::uint32_t* buffer, std::uint32_t bits) {
  ResolveNtdllBitmap();
  RtlInitializeBitMapFunction* const initialize = ntdllBitmap.RtlInitializeBitMap;
  if (initialize != nullptr) initialize(&bitmap, buffer, bits);
}

void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet) {
  if (LogSelectorEnabled(kBitmapTrace) || !IsNtdllBitmapResolved()) [[unlikely]] {
    SetBitsWithTrace(BitmapHeader, StartingIndex, NumberToSet);
  } else {
    SetBitsInRange(*BitmapHeader, StartingIndex, NumberToSet);
  }
}

}  // namespace zel
