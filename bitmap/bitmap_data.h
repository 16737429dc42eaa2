// One loaded bitmap: its file in memory, and the flushes that it owes.
//
// Threads: opened and closed under its record's lock; the header, the bits and Changes of a pinned
// bitmap are used without any.
// Lifetime: held by std::shared_ptr from its BitmapRecord, its pins and the flushes that it owes; a
// pinned one stays mapped.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "bitmap/bitmap_file.h"
#include "bitmap/change/change_bitmap.h"
#include "win32/mutex.h"
#include "win32/view_fault.h"

namespace zel {

// What every report needs comes first, beside the shared ownership's counters: with many files each
// further cache line is one more wait for memory.
struct BitmapData {
  std::atomic<std::uint32_t> InUseCount{0};  // pins
  // Whether something was recorded that the device may not have. Stored after it was, by whoever
  // holds a pin; cleared before the bits are flushed.
  std::atomic<bool> HasChanges{false};
  std::atomic<bool> OwesMark{false};  // a mark waits to be flushed
  // File's view, while that is open. Stays while somebody holds a pin; whoever does not looks at it
  // under FlushLock.
  BitmapFileHeader* View = nullptr;
  std::optional<ChangeBitmap> Changes;  // once the header has been accepted
  std::uint32_t BitmapSize = 0;         // bytes of the bit area, as checked against FileSize
  std::uint32_t FileSize = 0;           // low 32 bits of the file's length at open
  zel::BitmapId BitmapId = 0;
  std::wstring FileName;             // full path of the bitmap file
  RtlBitmap BitmapHeader = {};       // over the bit area; zero for an empty one
  Mutex FlushLock;                   // held over a flush, and while the file is being closed
  std::unique_ptr<BitmapFile> File;  // null until it is opened and once it is closed

  [[nodiscard]] BitmapFileHeader* header() const { return View; }
};

// Does `work`, which reads or writes the header or the bits and owns nothing (win32/view_fault.h):
// outside of it nobody touches them. Returns 0, or the code of a fault.
template <class Work>
[[nodiscard]] std::uint32_t TouchView(const BitmapData& data, Work work) {
  return CatchViewFault(data.header(), kBitmapHeaderSize + std::size_t{data.BitmapSize}, work);
}

// Why a bitmap could not be loaded, and how the system or the file says so.
enum class LoadFault : std::uint8_t {
  kNone,
  kOpen,  // these five: what the system said
  kSize,
  kMapping,
  kView,
  kFault,      // the view could not be read or written
  kCorrupted,  // too short for its header
  kBlockSize,  // the header's is not that of the name
  kMagic,      // this and the next two: what stands in the header
  kVersion,
  kHeaderSize,
};
struct LoadFailure {
  LoadFault fault = LoadFault::kNone;
  std::uint32_t detail = 0;  // the code, or what was found

  friend bool operator==(const LoadFailure&, const LoadFailure&) = default;
};

// Opens and maps data.FileName. Nothing is logged. After a failure the file is closed.
[[nodiscard]] LoadFailure OpenAndMapBitmap(BitmapData& data);

// What a flush came to.
struct FlushResult {
  enum class Step { kNone, kTouch, kHeader, kView, kFile } failed = Step::kNone;
  std::uint32_t code = 0;

  [[nodiscard]] bool ok() const { return failed == Step::kNone; }
};

// Takes what was recorded to the device, bits and marks; nothing when nothing was.
FlushResult FlushChanges(BitmapData& data) ZEL_EXCLUDES(data.FlushLock);

// Takes a mark that is owed, and has not been flushed, to the device. A failure is logged. The file
// may have been closed meanwhile: then nothing is owed any more. False for a failure.
bool FlushOwedMark(BitmapData& data) ZEL_EXCLUDES(data.FlushLock);

// Writes the mark of a clean close into the file cache. It stands there, unless the step that
// failed is kTouch.
FlushResult MarkClosedCleanly(BitmapData& data) ZEL_EXCLUDES(data.FlushLock);

// Closes the file, unless somebody holds a pin: then it goes with the last one's data.
void CloseIfUnpinned(BitmapData& data) ZEL_EXCLUDES(data.FlushLock);

// Logs a failure; nothing for a success.
void LogFlushFailure(const BitmapData& data, const FlushResult& result);

// Logs that the view of a bitmap's file failed.
void LogViewFault(const std::wstring& file_name, std::uint32_t fault);

}  // namespace zel
