// A known bitmap, loaded or not, and the lock over all of them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bitmap/bitmap_data.h"
#include "common/types.h"
#include "win32/critical_section.h"

namespace zel {

// Guards the bitmap cache, every BitmapRecord, and every load, unload and delete. Taken after
// TrackedFilesLock and before the log lock.
extern CriticalSection bitmapCacheLock;

// What every lookup reads comes first, in one cache line.
struct BitmapRecord {
  std::shared_ptr<BitmapData> Data ZEL_GUARDED_BY(bitmapCacheLock);  // empty while not loaded
  bool Discarded ZEL_GUARDED_BY(bitmapCacheLock) = false;   // to be deleted as soon as unpinned
  bool OpenFailed ZEL_GUARDED_BY(bitmapCacheLock) = false;  // by the last load, for a system call
  // A change was reported while it could not be opened: the next load marks it unreliable.
  bool ChangeMissed ZEL_GUARDED_BY(bitmapCacheLock) = false;
  zel::VolumeGuid VolumeGuid;  // of the tracked file
  zel::FileId FileId;          // of the tracked file
  zel::BitmapId BitmapId;
  std::wstring FileName;        // full path of the bitmap file
  std::uint32_t FileSize;       // bytes of the bitmap file, as AddBitmap was told
  std::uint32_t BlockSize = 0;  // from the file's name; 0 when the name is malformed
  FileTime CreationTime = 0;    // likewise
  FileTime LastVerifyTime ZEL_GUARDED_BY(bitmapCacheLock) = 0;  // driver's stamp of the last verify
};

// Loads the bitmap if it is not: opens, maps, marks it in use, validates, upgrades. False when it
// cannot be used; a file too short for its header makes the record Discarded.
[[nodiscard]] bool LoadBitmap(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock);

// Marks a loaded bitmap closed cleanly, a discarded one as unreliable too, flushes it and lets go
// of it; its file is closed when nobody holds a pin. Nothing for an unloaded one.
void UnloadBitmap(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock);

// Unloads the bitmap and deletes its file. A file already gone is no failure; others are logged,
// and the file is marked unreliable if that can be done.
void DeleteBitmapFile(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock);

}  // namespace zel
