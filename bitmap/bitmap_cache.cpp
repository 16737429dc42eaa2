#include "bitmap/bitmap_cache.h"

#include <algorithm>

namespace zel {

// Ids are indexes that the file system counts up, and a machine has few volumes: the multiplication
// spreads them over the table.
std::size_t BitmapCache::KeyHash::operator()(const FileKey& key) const noexcept {
  std::uint64_t halves[2];
  static_assert(sizeof halves == sizeof key.volume);
  std::memcpy(halves, &key.volume, sizeof halves);
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;
  std::uint64_t hash = (halves[0] ^ halves[1] * kOdd ^ key.file_id) * kOdd;
  return hash ^ hash >> 32;
}

BitmapRecords& BitmapCache::EntryOf(const FileKey& key) {
  if (const auto found = by_key_.find(key); found != by_key_.end()) return *found->second;
  BitmapRecords& records = map_[key];
  by_key_.emplace(key, &records);
  return records;
}

const BitmapRecords& BitmapCache::FindOrInsert(const FileKey& key) {
  return EntryOf(key);
}

const BitmapRecords* BitmapCache::Find(const FileKey& key) const {
  const auto found = by_key_.find(key);
  return found == by_key_.end() ? nullptr : found->second;
}

void BitmapCache::Append(const std::shared_ptr<BitmapRecord>& record) {
  const FileKey key = {record->VolumeGuid, record->FileId};
  EntryOf(key).push_back(record);
  by_id_.emplace(record->BitmapId, key);
}

BitmapRecords BitmapCache::FindById(BitmapId bitmap_id) const {
  BitmapRecords found;
  for (auto file = by_id_.lower_bound({bitmap_id, {}});
       file != by_id_.end() && file->first == bitmap_id; ++file) {
    std::ranges::copy_if(map_.at(file->second), std::back_inserter(found),
                         [=](const auto& record) { return record->BitmapId == bitmap_id; });
  }
  return found;
}

void BitmapCache::Erase(const std::shared_ptr<BitmapRecord>& record) {
  const FileKey key = {record->VolumeGuid, record->FileId};
  BitmapRecords& records = EntryOf(key);
  std::erase(records, record);
  // The file system may have given the id of a file that is gone to the next one already.
  if (std::ranges::find(records, record->BitmapId, &BitmapRecord::BitmapId) == records.end()) {
    by_id_.erase({record->BitmapId, key});
  }
  EraseIfEmpty(key);
}

void BitmapCache::EraseIfEmpty(const FileKey& key) {
  const auto entry = map_.find(key);
  if (entry == map_.end() || !entry->second.empty()) return;
  by_key_.erase(key);
  map_.erase(entry);
}

BitmapCache& KnownBitmaps() {
  static BitmapCache& bitmapCache = *new BitmapCache;
  return bitmapCache;
}

}  // namespace zel
