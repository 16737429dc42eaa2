#include "bitmap/ntdll_bitmap.h"
#include "bitmap/set_bits.h"
#include "logging/log_message.h"

namespace zel {

void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet) {
  LogMessage(kBitmapTrace,
             L"ZelSetBits(BitmapHeader = 0x%p, StartingIndex = 0x%x, NumberToSet = 0x%x\n",
             BitmapHeader, StartingIndex, NumberToSet);
  const SetBitsOutcome outcome = SetBitsInRange(*BitmapHeader, StartingIndex, NumberToSet);
  if (outcome != SetBitsOutcome::kWithin) LogMessage(kBitmapTrace, L"write beyond end of bitmap\n");
  ResolveNtdllBitmap();
}

}  // namespace zel
