// What goes over all records: the idle scan and the shutdown, and the deletions that they finish.
//
// Many bitmaps are unloaded side by side, since each waits for the device.
//
// Threads: any, without bitmapCacheLock and without a record's lock.
#pragma once

#include <memory>

#include "bitmap/bitmap_record.h"

namespace zel {

// Discards a bitmap: nobody finds it any more, and reports pass it by, from when its file says that
// it cannot be trusted. Deletes the file and takes the record out of the cache, unless somebody
// holds a pin: then a later scan does. Waits for whoever is loading or unloading it. The record
// stays in the cache until its file is gone, so that a shutdown meanwhile waits for the deletion.
// False, and nothing is done, when the record has gone meanwhile.
bool DiscardBitmap(const std::shared_ptr<BitmapRecord>& record) ZEL_EXCLUDES(bitmapCacheLock);

// Makes a running scan leave what it has not reached to the next one; or no longer.
void HurryScans(bool hurry);
[[nodiscard]] bool ScansAreHurried();

// Loads what missed a change, so that it is marked; deletes what was discarded and is not pinned;
// unloads the rest, pinned or not.
void UnloadAllBitmaps() ZEL_EXCLUDES(bitmapCacheLock);

}  // namespace zel
