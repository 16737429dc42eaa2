#include "bitmap/bitmap_manager.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "bitmap/bitmap_cache.h"
#include "bitmap/extract_bitmap_name.h"
#include "bitmap/idle_cutoff.h"
#include "bitmap/idle_scanner.h"
#include "bitmap/startup_scan.h"
#include "common/identity.h"
#include "common/system_time.h"
#include "logging/log_message.h"
#include "logging/settings.h"

namespace zel {

namespace {

// Never destroyed: threads may still use it while the process ends.
BitmapCache& Cache() ZEL_REQUIRES(bitmapCacheLock) {
  static BitmapCache& bitmapCache = *new BitmapCache;
  return bitmapCache;
}

// Whether somebody holds a pin. Acquire: who finds it unpinned sees what its holders did. No new
// pin comes while the lock is held.
bool IsHeld(const BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock) {
  return record.Data && record.Data->InUseCount.load(std::memory_order_acquire) > 0;
}

PinnedBitmap LoadAndPin(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock) {
  if (record.Discarded || !LoadBitmap(record)) return {};
  return PinnedBitmap(record.Data);
}

// Has a bitmap that missed a change marked, as soon as it can be opened again.
void LoadIfChangeMissed(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock) {
  if (record.ChangeMissed && !record.Discarded) static_cast<void>(LoadBitmap(record));
}

bool IsIdle(const BitmapRecord& record, FileTime cutoff) ZEL_REQUIRES(bitmapCacheLock) {
  return record.Data && !IsHeld(record) && record.Data->header()->LastUpdateTime <= cutoff;
}

void UnloadIdleBitmap(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock) {
  LogMessage(kBitmapDebug,
             L"Unloading idle bitmap: Volume %s, FileId 0x%016I64x, BitmapId 0x%016I64x\n",
             GuidToString(record.VolumeGuid).c_str(), record.FileId, record.BitmapId);
  UnloadBitmap(record);
}

// Finishes the deletion of a discarded bitmap that nobody holds. Returns the record behind it.
BitmapRecords::iterator DeleteIfDue(BitmapRecords& records, BitmapRecords::iterator record)
    ZEL_REQUIRES(bitmapCacheLock) {
  if (!(*record)->Discarded || IsHeld(**record)) return std::next(record);
  DeleteBitmapFile(**record);
  return Cache().Erase(records, record);
}

// The scan's part for one file. True when it deleted the file's last bitmap.
bool ScanRecords(BitmapRecords& records, FileTime cutoff) ZEL_REQUIRES(bitmapCacheLock) {
  const bool had_records = !records.empty();
  for (auto record = records.begin(); record != records.end();) {
    LoadIfChangeMissed(**record);
    if (IsIdle(**record, cutoff)) UnloadIdleBitmap(**record);
    record = DeleteIfDue(records, record);
  }
  return had_records && records.empty();
}

// At the end: a deletion that waited for a pin is not left to the next start, which would list the
// file again.
void LetGo(BitmapRecord& record) ZEL_REQUIRES(bitmapCacheLock) {
  LoadIfChangeMissed(record);
  if (record.Discarded && !IsHeld(record)) {
    DeleteBitmapFile(record);
  } else {
    UnloadBitmap(record);
  }
}

BitmapInfo InfoOf(const BitmapRecord& record) {
  return {.FileSize = record.FileSize,
          .CreationTime = record.CreationTime,
          .BlockSize = record.BlockSize,
          .BitmapId = record.BitmapId,
          .VolumeGuid = record.VolumeGuid,
          .FileId = record.FileId};
}

}  // namespace

void InitBitmapManager() {
  StartIdleScanner(UnloadIdleBitmaps);
  LogMessage(kBitmapInfo, L"InitBitmapManager: initializing cache\n");
  FindBitmapFiles(GetCbtDirectory(), AddBitmap);
}

void ShutdownBitmapManager() {
  StopIdleScanner();
  const LockGuard guard(bitmapCacheLock);
  for (auto& [file, records] : Cache().entries()) {
    for (const auto& record : records) LetGo(*record);
  }
}

bool AddBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
               const std::wstring& file_name, std::uint32_t file_size) {
  const LockGuard guard(bitmapCacheLock);
  const BitmapRecords& records = Cache().FindOrInsert({volume_guid, file_id});
  if (std::ranges::find(records, bitmap_id, &BitmapRecord::BitmapId) != records.end()) {
    // Misprinted, and known to those who search logs for it: left as it is.
    LogMessage(kBitmapError,
               UncheckedLogFormat{L"AddBitmap: Bitmap is already added: %s, 0x%016I4x, 0x%016I64x"},
               GuidToString(volume_guid).c_str(), file_id, bitmap_id);
    return false;
  }
  const auto record = std::make_shared<BitmapRecord>();
  record->VolumeGuid = volume_guid;
  record->FileId = file_id;
  record->BitmapId = bitmap_id;
  record->FileName = file_name;
  record->FileSize = file_size;
  ExtractFromBitmapName(file_name, &record->BlockSize, &record->CreationTime);
  Cache().Append(record);
  return true;
}

PinnedBitmaps FindBitmapsForFile(const VolumeGuid& volume_guid, FileId file_id, FindFor purpose) {
  PinnedBitmaps pinned;
  const LockGuard guard(bitmapCacheLock);
  for (const auto& record : Cache().FindOrInsert({volume_guid, file_id})) {
    if (PinnedBitmap bitmap = LoadAndPin(*record)) {
      pinned.Add(std::move(bitmap));
    } else if (purpose == FindFor::kChange && !record->Discarded && record->OpenFailed) {
      record->ChangeMissed = true;
    }
  }
  return pinned;
}

PinnedBitmap GetBitmapById(BitmapId bitmap_id) {
  const LockGuard guard(bitmapCacheLock);
  for (const auto& record : Cache().FindById(bitmap_id)) {
    if (PinnedBitmap bitmap = LoadAndPin(*record)) return bitmap;
  }
  return {};
}

std::map<FileKey, std::vector<BitmapInfo>> ListAllBitmaps() {
  std::map<FileKey, std::vector<BitmapInfo>> bitmaps;
  const LockGuard guard(bitmapCacheLock);
  for (const auto& [file, records] : Cache().entries()) {
    std::vector<BitmapInfo>& listed = bitmaps.emplace_hint(bitmaps.end(), file, 0)->second;
    for (const auto& record : records) {
      if (!record->Discarded) listed.push_back(InfoOf(*record));
    }
  }
  return bitmaps;
}

void DeleteBitmapById(BitmapId bitmap_id, VolumeGuid& volume_guid, FileId& file_id) {
  volume_guid = {};
  file_id = 0;
  const LockGuard guard(bitmapCacheLock);
  const BitmapRecords found = Cache().FindById(bitmap_id);
  if (found.empty()) return;
  BitmapRecord& record = *found.front();
  volume_guid = record.VolumeGuid;
  file_id = record.FileId;
  record.Discarded = true;
  BitmapRecords& records = *Cache().Find({volume_guid, file_id});
  DeleteIfDue(records, std::ranges::find(records, found.front()));
  Cache().EraseIfEmpty({volume_guid, file_id});
}

void DiscardBitmapsOfFile(const FileKey& file) {
  const LockGuard guard(bitmapCacheLock);
  BitmapRecords* const records = Cache().Find(file);
  if (records == nullptr) return;
  for (auto record = records->begin(); record != records->end();) {
    (*record)->Discarded = true;
    record = DeleteIfDue(*records, record);
  }
  Cache().EraseIfEmpty(file);
}

void SetLastVerifyTime(const FileKey& file, FileTime time) {
  const LockGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = Cache().Find(file);
  if (records == nullptr) return;
  for (const auto& record : *records) record->LastVerifyTime = time;
}

bool AllVerifiedSince(const FileKey& file, FileTime time) {
  const LockGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = Cache().Find(file);
  if (records == nullptr) return false;
  for (const auto& record : *records) {
    if (record->LastVerifyTime < time) return false;
  }
  return true;
}

void UnloadIdleBitmaps() {
  const LockGuard guard(bitmapCacheLock);
  const FileTime cutoff = IdleCutoff(SystemTimeNow(), BitmapIdleTimeout);
  std::vector<FileKey> emptied;
  for (auto& [file, records] : Cache().entries()) {
    if (ScanRecords(records, cutoff)) emptied.push_back(file);
  }
  for (const FileKey& file : emptied) Cache().EraseIfEmpty(file);
}

}  // namespace zel
