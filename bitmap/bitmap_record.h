// A known bitmap, loaded or not, what is done with its file, and the lock over all of them.
//
//   unloaded --LoadBitmap--> loaded --UnloadBitmap--> unloaded
//       `------- Discarded -----'--DeleteBitmapFile--> gone, and erased from the cache
//
// What is done is apart from its logging: both under the record's lock, so that a bitmap's lines
// come in the order of what was done.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bitmap/bitmap_data.h"
#include "files/types.h"
#include "logging/log_format.h"
#include "win32/mutex.h"
#include "win32/shared_lock.h"

namespace zel {

// Guards the bitmap cache, the records' states and the taking of pins. Held for memory's time only:
// nobody opens, maps, flushes, closes, deletes or lists a file under it. Taken after
// TrackedFilesLock and a record's own lock, and before the log lock.
extern SharedLock bitmapCacheLock;

// What says on the disk that a bitmap misses changes: its own header, or what stands beside it.
enum class MissedMark : std::uint8_t { kNone, kBeside, kInFile };

// What every lookup reads comes first, in one cache line.
struct BitmapRecord {
  std::shared_ptr<BitmapData> Data ZEL_GUARDED_BY(bitmapCacheLock);  // empty while not loaded
  bool Discarded ZEL_GUARDED_BY(bitmapCacheLock) = false;  // to be deleted as soon as unpinned
  // It misses a change (bitmap/missed_changes.h): the next load marks it unreliable. Reports pass
  // it by until then.
  bool ChangeMissed ZEL_GUARDED_BY(bitmapCacheLock) = false;
  bool Erased ZEL_GUARDED_BY(bitmapCacheLock) = false;  // no longer in the cache
  // Held by whoever opens, closes or deletes the file: whoever needs it meanwhile waits for this
  // record alone. Only its holder replaces Data.
  Mutex Lock ZEL_ACQUIRED_BEFORE(bitmapCacheLock);
  std::uint32_t DeleteFailure ZEL_GUARDED_BY(Lock) = 0;  // the code of the last deletion
  LoadFailure ReportedFailure ZEL_GUARDED_BY(Lock);      // the last one that was not for an agent
  MissedMark Mark ZEL_GUARDED_BY(Lock) = MissedMark::kNone;  // made by this process
  std::uint32_t MarkFailure ZEL_GUARDED_BY(Lock) = 0;        // the code of the last that failed
  zel::VolumeGuid VolumeGuid = {};                           // of the tracked file
  zel::FileId FileId = 0;                                    // of the tracked file
  zel::BitmapId BitmapId = 0;
  std::wstring FileName;        // full path of the bitmap file
  std::uint32_t FileSize = 0;   // bytes of the bitmap file, as AddBitmap was told
  std::uint32_t BlockSize = 0;  // from the file's name; 0 when the name is malformed
  FileTime CreationTime = 0;    // likewise
  FileTime LastVerifyTime ZEL_GUARDED_BY(bitmapCacheLock) = 0;  // driver's stamp of the last verify
};

// Logs a message that names the record's bitmap and its file.
void LogRecord(int selector, LogFormat<std::uint64_t, const wchar_t*, std::uint64_t> format,
               const BitmapRecord& record);

// Of a Win32 code: whether it says that there is no such file.
[[nodiscard]] bool IsMissingFile(std::uint32_t error);

// Null while it is not loaded.
[[nodiscard]] std::shared_ptr<BitmapData> LoadedData(const BitmapRecord& record)
    ZEL_EXCLUDES(bitmapCacheLock);

[[nodiscard]] bool IsDiscarded(const BitmapRecord& record) ZEL_EXCLUDES(bitmapCacheLock);

// Parses the last component of `path`. An output that is null is neither parsed nor checked. False
// for a malformed name, which is logged; the outputs are then unchanged.
bool ExtractFromBitmapName(const std::wstring& path, std::uint32_t* block_size,
                           FileTime* creation_time);

// Which failures of a load are logged: every one, or the first of a run of equal ones.
enum class LoadLog { kEvery, kFirstOfRun };

// Loads the bitmap if it is not: opens, maps, marks it in use, validates, upgrades. The mark is
// handed to the flusher. False when it cannot be used; a file too short for its header makes the
// record Discarded.
[[nodiscard]] bool LoadBitmap(BitmapRecord& record, LoadLog log = LoadLog::kEvery)
    ZEL_REQUIRES(record.Lock) ZEL_EXCLUDES(bitmapCacheLock);

// Whether the last load for a report failed in a way that time alone does not mend: the file is not
// there, is empty, or was refused, or its view failed.
[[nodiscard]] bool CannotBeLoadedForNow(const BitmapRecord& record) ZEL_REQUIRES(record.Lock);

// What unloading a bitmap came to.
struct UnloadOutcome {
  std::shared_ptr<BitmapData> data;  // what was unloaded; null for nothing
  FlushResult bits;                  // without them there is no mark of a clean close
  FlushResult mark;                  // a mark that fails to reach the file cache is logged only

  // The code of a fault in the view, with which the bitmap has failed; or 0.
  [[nodiscard]] std::uint32_t Fault() const {
    if (bits.failed == FlushResult::Step::kTouch) return bits.code;
    return mark.failed == FlushResult::Step::kTouch ? mark.code : 0;
  }
};

enum class UnloadIf { kAlways, kIdle };

// Takes the bits of a loaded bitmap to the device, marks it closed cleanly (a discarded one as
// unreliable too) and lets go of it; its file is closed when nobody holds a pin. Nothing for an
// unloaded one. With kIdle nothing either for one that is pinned, was last changed after `cutoff`,
// or is changed meanwhile; one whose view fails then is let go of as FailBitmap does.
[[nodiscard]] UnloadOutcome UnloadBitmap(BitmapRecord& record, UnloadIf condition,
                                         FileTime cutoff = 0) ZEL_REQUIRES(record.Lock)
    ZEL_EXCLUDES(bitmapCacheLock);

void LogUnload(const BitmapRecord& record, const UnloadOutcome& outcome);

struct DeleteOutcome {
  UnloadOutcome unload;
  std::uint32_t mark_error = 0;  // of marking it first
  bool is_marked = false;        // the file itself is
  std::uint32_t error = 0;       // of the deletion

  // Whether nobody will take the file for a good one: it is gone, or says so.
  [[nodiscard]] bool IsFinal() const;
};

// Unloads the bitmap, marks its file unreliable on the device and deletes it: changes are withheld
// from it, and a power cut or another program's handle could keep the file. Where the file cannot
// be marked the mark is left beside it, until it is gone.
[[nodiscard]] DeleteOutcome DeleteBitmapFile(BitmapRecord& record) ZEL_REQUIRES(record.Lock)
    ZEL_EXCLUDES(bitmapCacheLock);

// Logs a deletion, or the failure of one. A file that was not there is no failure.
void LogDelete(const BitmapRecord& record, const DeleteOutcome& outcome);

}  // namespace zel
