// The process-wide registry of all change bitmaps.
//
// Threads: any thread; every operation holds bitmapCacheLock for its whole run, so its caller may
// hold TrackedFilesLock but not a lock that is taken under bitmapCacheLock.
// Lifetime: pinned bitmaps stay mapped until their guard goes, also over deletion and shutdown.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bitmap/bitmap_record.h"
#include "bitmap/pinned_bitmap.h"

namespace zel {

// One element of a listing, copied out.
struct BitmapInfo {
  std::uint32_t FileSize;  // bytes of the bitmap file
  FileTime CreationTime;
  std::uint32_t BlockSize;  // bytes of the tracked file per bit
  zel::BitmapId BitmapId;
  zel::VolumeGuid VolumeGuid;
  zel::FileId FileId;
};

// Starts the idle scanner and registers every bitmap file in the CBT directory, unloaded. Called
// once, before any other thread uses the manager.
void InitBitmapManager() ZEL_EXCLUDES(bitmapCacheLock);

// Stops the idle scanner, unloads every bitmap cleanly and deletes what was to be deleted and is no
// longer pinned; the cache is kept. May be called twice
// and by several threads at once. Bits that are set through a pin afterwards still reach the file,
// but a power cut before they do goes unnoticed: the writers are to be stopped first.
void ShutdownBitmapManager() ZEL_EXCLUDES(bitmapCacheLock);

// Registers a bitmap file of `file_size` bytes. False for one that its file already has by its id,
// which is logged and left as it is.
bool AddBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
               const std::wstring& file_name, std::uint32_t file_size);

// What a file's bitmaps are looked up for: to have a change set in them, or for anything else.
enum class FindFor { kReading, kChange };

// All usable bitmaps of one tracked file in creation order, loaded and pinned. A file not heard of
// gets an empty entry, which listings show. No heap allocation for up to four loaded bitmaps.
// A bitmap that cannot be opened for a change is unreliable as soon as it can be opened again: with
// the next lookup, scan or shutdown.
[[nodiscard]] PinnedBitmaps FindBitmapsForFile(const VolumeGuid& volume_guid, FileId file_id,
                                               FindFor purpose = FindFor::kReading);

// One bitmap, loaded and pinned; empty when there is none with this id that can be used.
[[nodiscard]] PinnedBitmap GetBitmapById(BitmapId bitmap_id);

// A snapshot of every bitmap that is not discarded, by file; nothing is loaded.
[[nodiscard]] std::map<FileKey, std::vector<BitmapInfo>> ListAllBitmaps();

// Deletes a bitmap, at once when nobody holds it, else by a later idle scan. The outputs tell whose
// it was: all zero when no bitmap has this id.
void DeleteBitmapById(BitmapId bitmap_id, VolumeGuid& volume_guid, FileId& file_id);

// Deletes all bitmaps of one tracked file likewise.
void DiscardBitmapsOfFile(const FileKey& file);

// Notes the driver's time of a verify message for every bitmap of a file, if it has any.
void SetLastVerifyTime(const FileKey& file, FileTime time);

// Whether the manager knows the file and no bitmap of it was last verified before `time`. True for
// a file without bitmaps that has been looked up.
[[nodiscard]] bool AllVerifiedSince(const FileKey& file, FileTime time);

// One scan: unloads bitmaps unchanged for BitmapIdleTimeout seconds and finishes deletions.
void UnloadIdleBitmaps();

}  // namespace zel
