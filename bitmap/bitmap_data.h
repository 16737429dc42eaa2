// One loaded bitmap: its file, mapping and view, and the bits in it.
//
// Threads: opened, unloaded and torn down under bitmapCacheLock; bits and header fields of a pinned
// bitmap are changed without it (bitmap/set_bits.h, FlushBitmapHeader).
// Lifetime: held by std::shared_ptr from its BitmapRecord; a pinned one is never unloaded.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "bitmap/bitmap_header.h"
#include "bitmap/set_bits.h"
#include "win32/handles.h"

namespace zel {

struct BitmapData {
  std::atomic<std::uint32_t> InUseCount{0};  // pins; first, beside the shared ownership's counters
  zel::BitmapId BitmapId = 0;
  std::wstring FileName;                 // full path of the bitmap file
  UniqueFile FileHandle;                 // members are torn down from the last to the first: the
  UniqueMapping MappingHandle;           // view goes before the mapping, the mapping before the
  UniqueView<zel::BitmapHeader> Header;  // file; nothing is flushed or marked then
  RtlBitmap BitmapHeader = {};           // over the bit area; zero for an empty one
  std::uint32_t FileSize = 0;            // low 32 bits of the file's length at open

  [[nodiscard]] zel::BitmapHeader* header() const { return Header.get(); }
};

enum class OpenResult { kMapped = 0, kSystemCallFailed = 1, kCorrupted = 2 };

// Opens and maps data.FileName. Whatever was opened before a failure stays in `data`.
[[nodiscard]] OpenResult OpenAndMapBitmap(BitmapData& data);

// Hands the header's changes to the file cache. A failure is logged only.
void FlushBitmapHeader(const BitmapData& data);

// Hands what the file cache has of the bitmap's file to the device. False for a failure, which is
// logged.
bool FlushBitmapFile(const BitmapData& data);

// FlushBitmapHeader, and then the file to the device: for a mark that turns the bitmap from
// trusted to distrusted, without which a power cut could leave the old header over newer bits.
void FlushDistrustMark(const BitmapData& data);

// Sets one of the header's marks SizeChanged and Unreliable and flushes the header: to the device
// when the mark is new, to the file cache when it was set before. True for a new mark, which one
// thread alone is told of. Any thread that holds a pin.
bool MarkDistrusted(const BitmapData& data, std::uint8_t BitmapHeader::*mark);

// Replaces the header's LastUpdateTime with the present. Any thread that holds a pin.
void StampLastUpdateTime(const BitmapData& data);

}  // namespace zel
