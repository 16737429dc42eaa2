// A bitmap that misses changes of its file, because it could not be loaded for them or because its
// view failed: what is noted of it in memory, and on the disk, so that it is unreliable whatever
// becomes of this process.
//
//   noted --LeaveMark--> marked on the disk --LoadBitmap--> Unreliable
//
// Threads: under the record's lock, without bitmapCacheLock: marks are waited for.
#pragma once

#include <cstdint>

#include "bitmap/bitmap_record.h"

namespace zel {

// Marks the bitmap's file Unreliable on the device; where it cannot even be opened for that, leaves
// the mark beside it. 0 when either stands. record.Mark tells which, and a mark that stands is not
// made again, except that one in the file replaces one beside it. A file that is not there gets
// none.
std::uint32_t LeaveMark(BitmapRecord& record) ZEL_REQUIRES(record.Lock)
    ZEL_EXCLUDES(bitmapCacheLock);

// Leaves the mark and then has reports pass the bitmap by. Nothing for a discarded one.
void NoteMissedChange(BitmapRecord& record) ZEL_REQUIRES(record.Lock) ZEL_EXCLUDES(bitmapCacheLock);

// Whether it misses changes, as far as this process knows, and its next load is to say so.
[[nodiscard]] bool HasMissedAChange(const BitmapRecord& record) ZEL_EXCLUDES(bitmapCacheLock);

// Makes a bitmap that misses changes, or has a mark beside it, Unreliable. That is on the device
// before the mark beside it goes. 0, or the code of a fault in the view.
[[nodiscard]] std::uint32_t SettleMissedChanges(BitmapRecord& record, BitmapData& data)
    ZEL_REQUIRES(record.Lock) ZEL_EXCLUDES(bitmapCacheLock);

// Lets go of a loaded bitmap whose view failed with `fault`, without the mark of a clean close: it
// misses changes. Logs the fault, unless it is the one that was logged last.
void FailBitmap(BitmapRecord& record, const std::shared_ptr<BitmapData>& data, std::uint32_t fault)
    ZEL_REQUIRES(record.Lock) ZEL_EXCLUDES(bitmapCacheLock);

// Names a bitmap that this process leaves behind without having been able to load it again.
void LogIfChangesAreMissed(const BitmapRecord& record) ZEL_REQUIRES(record.Lock)
    ZEL_EXCLUDES(bitmapCacheLock);

}  // namespace zel
