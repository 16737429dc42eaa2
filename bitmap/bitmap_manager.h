// The process-wide registry of all change bitmaps.
//
// Threads: any thread, without bitmapCacheLock and without a record's lock; a caller may hold
// TrackedFilesLock. What is loaded is found while others are loaded, unloaded and deleted; whoever
// needs a bitmap that is just then loaded or unloaded waits for that one.
// Lifetime: pinned bitmaps stay mapped until their guard goes, also over deletion and shutdown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "bitmap/bitmap_record.h"
#include "bitmap/format/bitmap_header.h"
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

// Starts the idle scanner and the flusher and registers every bitmap file in the CBT directory,
// unloaded. Called once, before any other thread uses the manager.
void InitBitmapManager() ZEL_EXCLUDES(bitmapCacheLock);

// Stops the idle scanner, unloads every bitmap cleanly, side by side, and deletes what was to be
// deleted and is no longer pinned; the cache is kept. May be called twice and by several threads at
// once. Bits that are set through a pin afterwards still reach the file, but a power cut before
// they do goes unnoticed: the writers are to be stopped first.
void ShutdownBitmapManager() ZEL_EXCLUDES(bitmapCacheLock);

// Has what is not loaded stay so, or no longer: a lookup that comes after the shutdown, or waited
// for it, finds no bitmap that is not pinned already. Of the manager's start and end.
void AllowLoads(bool allow) ZEL_EXCLUDES(bitmapCacheLock);

// Registers a bitmap file of `file_size` bytes. False for one that its file already has by its id,
// which is logged and left as it is.
bool AddBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
               const std::wstring& file_name, std::uint32_t file_size)
    ZEL_EXCLUDES(bitmapCacheLock);

// The same for one whose file is not finished: whoever finds it waits until `finish` has returned.
// `finish`, called once it is registered, takes no lock that comes before a record's.
bool AddNewBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                  const std::wstring& file_name, std::uint32_t file_size,
                  const std::function<void()>& finish) ZEL_EXCLUDES(bitmapCacheLock);

// The same for one that the start-up scan could not read: it misses the changes that were reported
// until now. False, without a word, for one that is known.
bool AddBitmapFoundLate(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                        const std::wstring& file_name, std::uint32_t file_size)
    ZEL_EXCLUDES(bitmapCacheLock);

// Whether a file has a bitmap of this id and name, be it one that waits for its deletion.
[[nodiscard]] bool IsBitmapKnown(const FileKey& file, BitmapId bitmap_id,
                                 const std::wstring& file_name) ZEL_EXCLUDES(bitmapCacheLock);

// All usable bitmaps of one tracked file in creation order, loaded and pinned. A file not heard of
// gets an empty entry, which listings show. No heap allocation for up to four loaded bitmaps.
[[nodiscard]] PinnedBitmaps FindBitmapsForFile(const VolumeGuid& volume_guid, FileId file_id)
    ZEL_EXCLUDES(bitmapCacheLock);

// The same for a change that is to be set in them. A bitmap that cannot be loaded for it is
// unreliable as soon as it can be again: with the next lookup for anything else, scan or shutdown.
// Until then further changes pass it by, and only the first of a run of equal failures is logged.
[[nodiscard]] PinnedBitmaps FindBitmapsToChange(const VolumeGuid& volume_guid, FileId file_id)
    ZEL_EXCLUDES(bitmapCacheLock);

// The ids of one file's bitmaps that are not discarded; nothing is loaded, and no entry is made.
[[nodiscard]] std::vector<BitmapId> BitmapIdsOfFile(const FileKey& file)
    ZEL_EXCLUDES(bitmapCacheLock);

// Marks bitmaps of a file that becomes tracked, and was not until now: what was written meanwhile
// nobody has reported. Returns when the marks are on the device; one that cannot be loaded has
// missed a change, as above. False when the manager has been shut down, and the rest is not marked:
// the file must then not become tracked.
[[nodiscard]] bool DistrustBitmapsOfFile(const FileKey& file, const std::vector<BitmapId>& bitmaps)
    ZEL_EXCLUDES(bitmapCacheLock);

// One bitmap, loaded and pinned; empty when there is none with this id that can be used.
[[nodiscard]] PinnedBitmap GetBitmapById(BitmapId bitmap_id) ZEL_EXCLUDES(bitmapCacheLock);

// Copies bytes of the bitmap's file, which has them, header included. 0, or the Win32 code of a
// fault, with which the bitmap has failed as FailBitmapInUse says.
[[nodiscard]] std::uint32_t ReadBitmap(const PinnedBitmap& bitmap, std::size_t offset,
                                       std::span<std::byte> bytes) ZEL_EXCLUDES(bitmapCacheLock);
[[nodiscard]] std::uint32_t ReadBitmapHeader(const PinnedBitmap& bitmap, BitmapFileHeader& header)
    ZEL_EXCLUDES(bitmapCacheLock);

// For whoever meets a fault in the bitmap's view (TouchView): it alone counts from then on as one
// that could not be opened and misses changes. Its pins stay what they are.
void FailBitmapInUse(const PinnedBitmap& bitmap, std::uint32_t fault) ZEL_EXCLUDES(bitmapCacheLock);

// A snapshot of every bitmap that is not discarded, by file; nothing is loaded.
[[nodiscard]] std::map<FileKey, std::vector<BitmapInfo>> ListAllBitmaps()
    ZEL_EXCLUDES(bitmapCacheLock);

// Deletes a bitmap, at once when nobody holds it, else by a later idle scan. The outputs tell whose
// it was: all zero when no bitmap has this id.
void DeleteBitmapById(BitmapId bitmap_id, VolumeGuid& volume_guid, FileId& file_id)
    ZEL_EXCLUDES(bitmapCacheLock);

// Deletes all bitmaps of one tracked file likewise.
void DiscardBitmapsOfFile(const FileKey& file) ZEL_EXCLUDES(bitmapCacheLock);

// Notes the driver's time of a verify message for every bitmap of a file, if it has any; an earlier
// one than a bitmap has changes nothing for it.
void SetLastVerifyTime(const FileKey& file, FileTime time) ZEL_EXCLUDES(bitmapCacheLock);

// Whether the manager knows the file and no bitmap of it was last verified before `time`. True for
// a file without bitmaps that has been looked up.
[[nodiscard]] bool AllVerifiedSince(const FileKey& file, FileTime time)
    ZEL_EXCLUDES(bitmapCacheLock);

// Whether some bitmap of the file was.
[[nodiscard]] bool AnyVerifiedSince(const FileKey& file, FileTime time)
    ZEL_EXCLUDES(bitmapCacheLock);

// Has `hook` called whenever a deletion leaves a file without bitmaps, and its directory perhaps
// empty: by whoever deletes, without a lock. Set before InitBitmapManager.
void WhenFileHasNoBitmapsLeft(void (*hook)());

// One scan: unloads bitmaps unchanged for BitmapIdleTimeout seconds, side by side, and finishes
// deletions. What it does not reach in some seconds is left to the next.
void UnloadIdleBitmaps() ZEL_EXCLUDES(bitmapCacheLock);

}  // namespace zel
