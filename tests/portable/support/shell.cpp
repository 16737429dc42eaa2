// What the portable sources call of the shell, for a system without it: the clock, texts, a log
// that drops its lines, bits without their trace, bitmap files in memory.
#include <atomic>
#include <chrono>

#include "bitmap/zel_set_bits.h"
#include "errors/error_info.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "tests/portable/support/memory_bitmap_files.h"
#include "win32/file_time.h"
#include "win32/view_fault.h"

namespace zel {

std::atomic<std::uint32_t> LogEnableMask{0};

void WriteLogLine(int, const wchar_t*, std::span<const LogArgument>) noexcept {}

FileTime SystemTimeNow() noexcept {
  using Units = std::chrono::duration<std::uint64_t, std::ratio<1, 10'000'000>>;
  constexpr FileTime kUnitsFrom1601To1970 = 116'444'736'000'000'000;
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return kUnitsFrom1601To1970 + std::chrono::duration_cast<Units>(since_1970).count();
}

std::wstring GuidToString(const VolumeGuid& guid) {
  return std::to_wstring(guid.Data1);
}

ErrorInfo::ErrorInfo(std::uint32_t code) noexcept : code_(code) {}

const char* ErrorInfo::text() const {
  return "error";
}

void DescribeBits(RtlBitmap& bitmap, std::uint32_t* buffer, std::uint32_t bits) {
  bitmap = {bits, buffer};
}

void ZelSetBits(const RtlBitmap* BitmapHeader, std::uint32_t StartingIndex,
                std::uint32_t NumberToSet) {
  SetBitsInRange(*BitmapHeader, StartingIndex, NumberToSet);
}

std::uint32_t CatchViewFault(const void* view, std::size_t, void (*function)(void*),
                             void* argument) {
  if (const std::uint32_t fault = test::Files().Touch(view)) return fault;
  function(argument);
  return 0;
}

BitmapFiles& SystemBitmapFiles() {
  return test::Files();
}

}  // namespace zel
