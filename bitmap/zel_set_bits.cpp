#include "bitmap/ntdll_bitmap.h"
#include "bitmap/set_bits.h"
#include "logging/log_message.h"

namespace zel {

namespace {

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

void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet) {
  if (LogSelectorEnabled(kBitmapTrace) || !IsNtdllBitmapResolved()) [[unlikely]] {
    SetBitsWithTrace(BitmapHeader, StartingIndex, NumberToSet);
  } else {
    SetBitsInRange(*BitmapHeader, StartingIndex, NumberToSet);
  }
}

}  // namespace zel
