#include "bitmap/bitmap_sweep.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "bitmap/bitmap_cache.h"
#include "bitmap/bitmap_manager.h"
#include "bitmap/flusher.h"
#include "bitmap/idle_cutoff.h"
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

// What was done to one record.
struct SweepOutcome {
  UnloadOutcome unload;
  std::optional<DeleteOutcome> deletion;
};

// Nobody pins a discarded bitmap any more, so what holds true here stays so.
bool MayBeDeleted(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.Discarded && !record.Erased &&
         (!record.Data || record.Data->InUseCount.load(std::memory_order_acquire) == 0);
}

std::optional<DeleteOutcome> DeleteIfDue(const SharedRecord& record) ZEL_REQUIRES(record->Lock) {
  if (!MayBeDeleted(*record)) return std::nullopt;
  DeleteOutcome outcome = DeleteBitmapFile(*record);
  const LockGuard guard(bitmapCacheLock);
  KnownBitmaps().Erase(record);
  record->Erased = true;
  return outcome;
}

bool HasMissedAChange(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.ChangeMissed && !record.Discarded;
}

// Has a bitmap that missed a change marked, now that it can perhaps be loaded again.
void LoadIfChangeMissed(BitmapRecord& record) ZEL_REQUIRES(record.Lock) {
  if (HasMissedAChange(record)) static_cast<void>(LoadBitmap(record, LoadLog::kFirstOfRun));
}

SweepOutcome ScanRecord(const SharedRecord& record, FileTime cutoff) {
  const LockGuard file(record->Lock);
  if (!CannotBeLoadedForNow(*record)) LoadIfChangeMissed(*record);
  UnloadOutcome unload = UnloadBitmap(*record, UnloadIf::kIdle, cutoff);
  return {std::move(unload), DeleteIfDue(record)};
}

// A deletion that waited for a pin is not left to the next start, which would list the file again.
// The cache keeps the record.
SweepOutcome LetGo(BitmapRecord& record) {
  const LockGuard file(record.Lock);
  LoadIfChangeMissed(record);
  if (MayBeDeleted(record)) return {{}, DeleteBitmapFile(record)};
  return {UnloadBitmap(record, UnloadIf::kAlways), std::nullopt};
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

void LogSweep(const BitmapRecord& record, const SweepOutcome& outcome) {
  LogUnload(record, outcome.unload);
  if (outcome.deletion) LogDelete(record, *outcome.deletion);
}

void LogScan(const BitmapRecord& record, const SweepOutcome& outcome) {
  if (outcome.unload.data != nullptr) {
    LogMessage(kBitmapDebug,
               L"Unloading idle bitmap: Volume %s, FileId 0x%016I64x, BitmapId 0x%016I64x\n",
               GuidToString(record.VolumeGuid).c_str(), record.FileId, record.BitmapId);
  }
  LogSweep(record, outcome);
}

}  // namespace

void DeleteIfUnpinned(const SharedRecord& record) {
  const LockGuard file(record->Lock);
  if (const auto outcome = DeleteIfDue(record)) LogDelete(*record, *outcome);
}

void HurryScans(bool hurry) {
  scansAreHurried = hurry;
}

void UnloadIdleBitmaps() {
  const Clock::time_point end = Clock::now() + kScanBudget;
  const FileTime cutoff = IdleCutoff(SystemTimeNow(), BitmapIdleTimeout);
  const BitmapRecords records = CollectRecords(Busy::kLeaveOut);
  std::vector<SweepOutcome> outcomes(records.size());
  RunSideBySide(records.size(), BatchShare::kHalf, [&](std::size_t i) {
    if (!scansAreHurried && Clock::now() < end) outcomes[i] = ScanRecord(records[i], cutoff);
  });
  for (std::size_t i = 0; i < records.size(); ++i) LogScan(*records[i], outcomes[i]);
}

void UnloadAllBitmaps() {
  const BitmapRecords records = CollectRecords(Busy::kTakeIn);
  std::vector<SweepOutcome> outcomes(records.size());
  RunSideBySide(records.size(), BatchShare::kAll,
                [&](std::size_t i) { outcomes[i] = LetGo(*records[i]); });
  for (std::size_t i = 0; i < records.size(); ++i) LogSweep(*records[i], outcomes[i]);
}

}  // namespace zel
