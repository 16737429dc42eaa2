// The directories that the start-up scan could not read. They are read again later; what is found
// then has missed whatever was reported until then.
//
// Threads: any.
#pragma once

#include <vector>

#include "bitmap/startup_scan.h"

namespace zel {

// Replaces those that are known.
void SetUnreadDirectories(std::vector<BitmapDirectory> directories);

// Reads some of them again, one after the other, for `found`: at first at every call, then ever
// more rarely, and a few at a call. What is read to its end is not read again; what HurryScans has
// it leave (bitmap/bitmap_sweep.h) stays unread.
void ReadUnreadDirectories(FoundBitmap* found);

// Names each that was never read.
void LogUnreadDirectories();

}  // namespace zel
