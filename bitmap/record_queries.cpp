// What the records of the bitmaps say, without touching a file.
#include <algorithm>

#include "bitmap/bitmap_cache.h"
#include "bitmap/bitmap_manager.h"

namespace zel {

namespace {

BitmapInfo InfoOf(const BitmapRecord& record) {
  return {.FileSize = record.FileSize,
          .CreationTime = record.CreationTime,
          .BlockSize = record.BlockSize,
          .BitmapId = record.BitmapId,
          .VolumeGuid = record.VolumeGuid,
          .FileId = record.FileId};
}

}  // namespace

std::vector<BitmapId> BitmapIdsOfFile(const FileKey& file) {
  std::vector<BitmapId> bitmaps;
  const SharedGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  if (records == nullptr) return bitmaps;
  for (const auto& record : *records) {
    if (!record->Discarded) bitmaps.push_back(record->BitmapId);
  }
  return bitmaps;
}

std::map<FileKey, std::vector<BitmapInfo>> ListAllBitmaps() {
  std::map<FileKey, std::vector<BitmapInfo>> bitmaps;
  const SharedGuard guard(bitmapCacheLock);
  for (const auto& [file, records] : KnownBitmaps().entries()) {
    std::vector<BitmapInfo>& listed = bitmaps.emplace_hint(bitmaps.end(), file, 0)->second;
    for (const auto& record : records) {
      if (!record->Discarded) listed.push_back(InfoOf(*record));
    }
  }
  return bitmaps;
}

void SetLastVerifyTime(const FileKey& file, FileTime time) {
  const LockGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  if (records == nullptr) return;
  for (const auto& record : *records) {
    record->LastVerifyTime = std::max(record->LastVerifyTime, time);
  }
}

bool AllVerifiedSince(const FileKey& file, FileTime time) {
  const SharedGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  if (records == nullptr) return false;
  for (const auto& record : *records) {
    if (record->LastVerifyTime < time) return false;
  }
  return true;
}

bool AnyVerifiedSince(const FileKey& file, FileTime time) {
  const SharedGuard guard(bitmapCacheLock);
  const BitmapRecords* const records = KnownBitmaps().Find(file);
  if (records == nullptr) return false;
  for (const auto& record : *records) {
    if (record->LastVerifyTime >= time) return true;
  }
  return false;
}

}  // namespace zel
