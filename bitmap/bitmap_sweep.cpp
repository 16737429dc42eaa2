#include "bitmap/bitmap_sweep.h"

#include <atomic>
#include <chrono>
#include <utility>

#include "bitmap/bitmap_cache.h"
#include "bitmap/bitmap_manager.h"
#include "bitmap/flusher.h"
#include "bitmap/idle_cutoff.h"
#include "bitmap/missed_changes.h"
#include "config/settings.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

using SharedRecord = std::shared_ptr<BitmapRecord>;
using Clock = std::chrono::steady_clock;

// A scan leaves what it has not reached in this time to the next one.
constexpr std::chrono::seconds kScanBudget(5);

constinit std::atomic<bool> scansAreHurried{false};

constinit std::atomic<void (*)()> noBitmapsLeft{nullptr};

bool IsErased(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.Erased;
}

// Reports are withheld from a discarded bitmap, so a kill just then must not leave it looking
// clean: a file that is in use says so, and any other is marked first. (The deletion that follows
// tells of a mark that cannot be made.)
void MarkDiscarded(BitmapRecord& record) ZEL_REQUIRES(record.Lock) {
  if (LoadedData(record) == nullptr) (void)LeaveMark(record);
  const LockGuard guard(bitmapCacheLock);
  record.Discarded = true;
}

// Nobody pins a discarded bitmap any more, so what holds true here stays so.
bool MayBeDeleted(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.Discarded && !record.Erased &&
         (!record.Data || record.Data->InUseCount.load(std::memory_order_acquire) == 0);
}

// A deletion that fails again as before is not logged again.
bool DeleteAndLog(BitmapRecord& record) ZEL_REQUIRES(record.Lock) {
  const DeleteOutcome outcome = DeleteBitmapFile(record);
  if (outcome.error == 0 || std::exchange(record.DeleteFailure, outcome.error) != outcome.error) {
    LogDelete(record, outcome);
  }
  return outcome.IsFinal();
}

// A record whose file is neither gone nor marked stays, invisible, and is tried again. True when it
// was the last of its tracked file.
bool DeleteIfDue(const SharedRecord& record) ZEL_REQUIRES(record->Lock) {
  if (!MayBeDeleted(*record) || !DeleteAndLog(*record)) return false;
  const LockGuard guard(bitmapCacheLock);
  KnownBitmaps().Erase(record);
  record->Erased = true;
  return KnownBitmaps().Find({record->VolumeGuid, record->FileId}) == nullptr;
}

// Called without a lock: what follows may take one that comes before a record's.
void TellIfLast(bool was_last) {
  if (const auto hook = noBitmapsLeft.load(); was_last && hook != nullptr) hook();
}

// Whether neither the last load for a report nor the last attempt at a mark found the file.
bool FoundNoFile(const BitmapRecord& record) ZEL_REQUIRES(record.Lock) {
  return record.ReportedFailure.fault == LoadFault::kOpen &&
         IsMissingFile(record.ReportedFailure.detail) && IsMissingFile(record.MarkFailure);
}

// Has a bitmap that missed a change marked, now that it can perhaps be loaded again; or the mark
// left that it could not be given before. A file that is gone takes none: should it come back, its
// next load marks it.
void LoadIfChangeMissed(BitmapRecord& record, bool may_load) ZEL_REQUIRES(record.Lock) {
  if (!HasMissedAChange(record)) return;
  if (may_load && LoadBitmap(record, LoadLog::kFirstOfRun)) return;
  if (!FoundNoFile(record)) NoteMissedChange(record);
}

void UnloadIfIdle(BitmapRecord& record, FileTime cutoff) ZEL_REQUIRES(record.Lock) {
  const UnloadOutcome outcome = UnloadBitmap(record, UnloadIf::kIdle, cutoff);
  if (outcome.data == nullptr) return;
  LogMessage(kBitmapDebug,
             L"Unloading idle bitmap: Volume %s, FileId 0x%016I64x, BitmapId 0x%016I64x\n",
             GuidToString(record.VolumeGuid).c_str(), record.FileId, record.BitmapId);
  LogUnload(record, outcome);
}

bool ScanRecord(const SharedRecord& record, FileTime cutoff) {
  const LockGuard file(record->Lock);
  LoadIfChangeMissed(*record, !CannotBeLoadedForNow(*record));
  UnloadIfIdle(*record, cutoff);
  return DeleteIfDue(record);
}

// A deletion that waited for a pin is not left to the next start, which would list the file again.
// The cache keeps the record.
void LetGo(BitmapRecord& record) {
  const LockGuard file(record.Lock);
  LoadIfChangeMissed(record, true);
  if (MayBeDeleted(record)) {
    static_cast<void>(DeleteAndLog(record));
  } else {
    LogUnload(record, UnloadBitmap(record, UnloadIf::kAlways));
  }
  LogIfChangesAreMissed(record);
}

// Of the records, those that have something to be done for, in the order of the cache: with kBusy
// also those that somebody is just then loading.
enum class Busy { kLeaveOut, kTakeIn };
BitmapRecords CollectRecords(Busy busy) {
  BitmapRecords collected;
  const SharedGuard guard(bitmapCacheLock);
  for (const auto& [file, records] : KnownBitmaps().entries()) {
    for (const SharedRecord& record : records) {
      if (record->Data != nullptr || record->Discarded || record->ChangeMissed ||
          (busy == Busy::kTakeIn && record->Lock.IsTaken())) {
        collected.push_back(record);
      }
    }
  }
  return collected;
}

}  // namespace

bool DiscardBitmap(const SharedRecord& record) {
  bool was_last = false;
  {
    const LockGuard file(record->Lock);
    if (IsErased(*record)) return false;
    MarkDiscarded(*record);
    was_last = DeleteIfDue(record);
  }
  TellIfLast(was_last);
  return true;
}

void WhenFileHasNoBitmapsLeft(void (*hook)()) {
  noBitmapsLeft = hook;
}

void HurryScans(bool hurry) {
  scansAreHurried = hurry;
}

bool ScansAreHurried() {
  return scansAreHurried;
}

void UnloadIdleBitmaps() {
  const Clock::time_point end = Clock::now() + kScanBudget;
  const FileTime cutoff = IdleCutoff(SystemTimeNow(), BitmapIdleTimeout);
  const BitmapRecords records = CollectRecords(Busy::kLeaveOut);
  RunSideBySide(records.size(), BatchShare::kHalf, [&](std::size_t i) {
    if (!ScansAreHurried() && Clock::now() < end) TellIfLast(ScanRecord(records[i], cutoff));
  });
}

void UnloadAllBitmaps() {
  const BitmapRecords records = CollectRecords(Busy::kTakeIn);
  RunSideBySide(records.size(), BatchShare::kAll, [&](std::size_t i) { LetGo(*records[i]); });
}

}  // namespace zel
