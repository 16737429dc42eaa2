#include "bitmap/bitmap_manager.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "bitmap/bitmap_cache.h"
#include "bitmap/bitmap_sweep.h"
#include "bitmap/missed_changes.h"
#include "errors/error_info.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

// What a lookup is for. A change that a bitmap misses makes it unreliable.
enum class Purpose { kReading, kChange };

bool loadsAreAllowed ZEL_GUARDED_BY(bitmapCacheLock) = true;

bool IsPassedBy(const BitmapRecord& record, Purpose purpose) ZEL_REQUIRES_SHARED(bitmapCacheLock) {
  return record.Discarded || (purpose == Purpose::kChange && record.ChangeMissed);
}

// The road of nearly every report: pins a file's bitmaps if those that count are all loaded; else
// nothing.
bool PinLoaded(const FileKey& file, Purpose purpose, PinnedBitmaps& pinned) {
  const SharedGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  if (records == nullptr) return false;
  for (const auto& record : *records) {
    if (record->Data == nullptr && !IsPassedBy(*record, purpose)) return false;
  }
  for (const auto& record : *records) {
    if (!IsPassedBy(*record, purpose)) pinned.Add(PinnedBitmap(record->Data));
  }
  return true;
}

// None for a record that is to be loaded first; empty for one that is passed by.
std::optional<PinnedBitmap> PinIfLoaded(const BitmapRecord& record, Purpose purpose) {
  const SharedGuard guard(bitmapCacheLock);
  if (IsPassedBy(record, purpose)) return PinnedBitmap();
  if (record.Data != nullptr) return PinnedBitmap(record.Data);
  return std::nullopt;
}

bool MayLoad() {
  const SharedGuard guard(bitmapCacheLock);
  return loadsAreAllowed;
}

// Waits for whoever is loading, unloading or deleting this bitmap.
PinnedBitmap LoadAndPin(BitmapRecord& record, Purpose purpose) {
  if (auto pinned = PinIfLoaded(record, purpose)) return std::move(*pinned);
  const LockGuard file(record.Lock);
  if (auto pinned = PinIfLoaded(record, purpose)) return std::move(*pinned);
  const bool is_change = purpose == Purpose::kChange;
  if (MayLoad() && LoadBitmap(record, is_change ? LoadLog::kFirstOfRun : LoadLog::kEvery)) {
    return PinIfLoaded(record, purpose).value_or(PinnedBitmap());
  }
  if (is_change) NoteMissedChange(record);
  return {};
}

// Returns when a mark is on the device, or its failure has been logged. One that stands there
// already is flushed, too: whoever has set it may not have got so far.
void DistrustUntracked(const BitmapRecord& record, const PinnedBitmap& bitmap) {
  auto owed = ChangeBitmap::Owed::kNothing;
  const FileTime now = SystemTimeNow();
  if (const std::uint32_t fault =
          TouchView(*bitmap, [&] { owed = bitmap->Changes->Distrust(now); })) {
    return FailBitmapInUse(bitmap, fault);
  }
  if (owed != ChangeBitmap::Owed::kNothing) {
    LogRecord(
        kBitmapWarn,
        L"Marking BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x unreliable because its "
        L"file was not tracked\n",
        record);
  }
  bitmap->HasChanges.store(true, std::memory_order_release);
  bitmap->OwesMark.store(true, std::memory_order_release);
  FlushOwedMark(*bitmap);
}

BitmapRecords RecordsOf(const FileKey& file) {
  const LockGuard guard(bitmapCacheLock);
  return KnownBitmaps().FindOrInsert(file);
}

PinnedBitmaps FindBitmaps(const FileKey& file, Purpose purpose) {
  PinnedBitmaps pinned;
  if (PinLoaded(file, purpose, pinned)) return pinned;
  for (const auto& record : RecordsOf(file)) {
    if (PinnedBitmap bitmap = LoadAndPin(*record, purpose)) pinned.Add(std::move(bitmap));
  }
  return pinned;
}

// Those that are not discarded first.
BitmapRecords RecordsWithId(BitmapId bitmap_id) {
  const SharedGuard guard(bitmapCacheLock);
  BitmapRecords records = KnownBitmaps().FindById(bitmap_id);
  std::stable_partition(records.begin(), records.end(),
                        [](const auto& record)
                            ZEL_REQUIRES_SHARED(bitmapCacheLock) { return !record->Discarded; });
  return records;
}

// A discarded one does not count: its file may be gone, and its id another file's.
bool HoldsId(const BitmapRecords& records, BitmapId bitmap_id)
    ZEL_REQUIRES_SHARED(bitmapCacheLock) {
  for (const auto& record : records) {
    if (record->BitmapId == bitmap_id && !record->Discarded) return true;
  }
  return false;
}

bool HasBitmap(const FileKey& file, BitmapId bitmap_id) {
  const SharedGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  return records != nullptr && HoldsId(*records, bitmap_id);
}

// False when somebody was faster with one of the same id.
bool Append(const std::shared_ptr<BitmapRecord>& record) {
  const LockGuard guard(bitmapCacheLock);
  const FileKey file = {record->VolumeGuid, record->FileId};
  if (HoldsId(KnownBitmaps().FindOrInsert(file), record->BitmapId)) return false;
  KnownBitmaps().Append(record);
  return true;
}

std::shared_ptr<BitmapRecord> MakeRecord(const VolumeGuid& volume_guid, FileId file_id,
                                         BitmapId bitmap_id, const std::wstring& file_name,
                                         std::uint32_t file_size) {
  auto record = std::make_shared<BitmapRecord>();
  record->VolumeGuid = volume_guid;
  record->FileId = file_id;
  record->BitmapId = bitmap_id;
  record->FileName = file_name;
  record->FileSize = file_size;
  return record;
}

// Completes the record, which nobody else has yet. False when its file has one of this id.
bool AppendIfNew(const std::shared_ptr<BitmapRecord>& record) {
  if (HasBitmap({record->VolumeGuid, record->FileId}, record->BitmapId)) return false;
  ExtractFromBitmapName(record->FileName, &record->BlockSize, &record->CreationTime);
  return Append(record);
}

// A file's records; an entry without any is dropped.
BitmapRecords RecordsToDiscard(const FileKey& file) {
  const LockGuard guard(bitmapCacheLock);
  KnownBitmaps().EraseIfEmpty(file);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  return records == nullptr ? BitmapRecords{} : *records;
}

}  // namespace

void AllowLoads(bool allow) {
  const LockGuard guard(bitmapCacheLock);
  loadsAreAllowed = allow;
}

bool AddBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
               const std::wstring& file_name, std::uint32_t file_size) {
  return AddNewBitmap(volume_guid, file_id, bitmap_id, file_name, file_size, [] {});
}

bool AddNewBitmap(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                  const std::wstring& file_name, std::uint32_t file_size,
                  const std::function<void()>& finish) {
  const auto record = MakeRecord(volume_guid, file_id, bitmap_id, file_name, file_size);
  const LockGuard file(record->Lock);
  if (AppendIfNew(record)) {
    finish();
    return true;
  }
  // Misprinted, and known to those who search logs for it: left as it is.
  LogMessage(kBitmapError,
             UncheckedLogFormat{L"AddBitmap: Bitmap is already added: %s, 0x%016I4x, 0x%016I64x"},
             GuidToString(volume_guid).c_str(), file_id, bitmap_id);
  return false;
}

bool AddBitmapFoundLate(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                        const std::wstring& file_name, std::uint32_t file_size) {
  // Nor is one that waits for its deletion found again.
  if (IsBitmapKnown({volume_guid, file_id}, bitmap_id, file_name)) return false;
  const auto record = MakeRecord(volume_guid, file_id, bitmap_id, file_name, file_size);
  const LockGuard file(record->Lock);  // whoever finds it waits until it is marked
  if (!AppendIfNew(record)) return false;
  NoteMissedChange(*record);
  return true;
}

bool IsBitmapKnown(const FileKey& file, BitmapId bitmap_id, const std::wstring& file_name) {
  for (const auto& record : RecordsWithId(bitmap_id)) {
    const FileKey key = {record->VolumeGuid, record->FileId};
    if (key == file && record->FileName == file_name) return true;
  }
  return false;
}

PinnedBitmaps FindBitmapsForFile(const VolumeGuid& volume_guid, FileId file_id) {
  return FindBitmaps({volume_guid, file_id}, Purpose::kReading);
}

PinnedBitmaps FindBitmapsToChange(const VolumeGuid& volume_guid, FileId file_id) {
  return FindBitmaps({volume_guid, file_id}, Purpose::kChange);
}

bool DistrustBitmapsOfFile(const FileKey& file, const std::vector<BitmapId>& bitmaps) {
  for (const auto& record : bitmaps.empty() ? BitmapRecords{} : RecordsOf(file)) {
    if (std::ranges::find(bitmaps, record->BitmapId) == bitmaps.end()) continue;
    if (!MayLoad()) return false;
    if (const PinnedBitmap bitmap = LoadAndPin(*record, Purpose::kChange)) {
      DistrustUntracked(*record, bitmap);
    } else if (!MayLoad()) {
      return false;
    }
  }
  return true;
}

PinnedBitmap GetBitmapById(BitmapId bitmap_id) {
  for (const auto& record : RecordsWithId(bitmap_id)) {
    if (PinnedBitmap bitmap = LoadAndPin(*record, Purpose::kReading)) return bitmap;
  }
  return {};
}

void FailBitmapInUse(const PinnedBitmap& bitmap, std::uint32_t fault) {
  for (const auto& record : RecordsWithId(bitmap->BitmapId)) {
    if (record->FileName != bitmap->FileName) continue;
    const LockGuard file(record->Lock);
    FailBitmap(*record, bitmap.data(), fault);
  }
}

std::uint32_t ReadBitmap(const PinnedBitmap& bitmap, std::size_t offset,
                         std::span<std::byte> bytes) {
  const std::uint32_t fault = TouchView(*bitmap, [&] {
    const auto* const file = reinterpret_cast<const std::byte*>(bitmap->header());
    std::memcpy(bytes.data(), file + offset, bytes.size());
  });
  if (fault == 0) return 0;
  FailBitmapInUse(bitmap, fault);
  return ErrorInfo(fault).code();
}

std::uint32_t ReadBitmapHeader(const PinnedBitmap& bitmap, BitmapFileHeader& header) {
  return ReadBitmap(bitmap, 0, std::as_writable_bytes(std::span(&header, 1)));
}

void DeleteBitmapById(BitmapId bitmap_id, VolumeGuid& volume_guid, FileId& file_id) {
  volume_guid = {};
  file_id = 0;
  for (const auto& record : RecordsWithId(bitmap_id)) {
    if (!DiscardBitmap(record)) continue;
    volume_guid = record->VolumeGuid;
    file_id = record->FileId;
    return;
  }
}

void DiscardBitmapsOfFile(const FileKey& file) {
  for (const auto& record : RecordsToDiscard(file)) (void)DiscardBitmap(record);
}

}  // namespace zel
