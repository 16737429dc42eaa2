// The container of all bitmap records: the ordered map that listings and scans walk, and two
// indexes beside it, without which a lookup would cost more the more files are tracked.
//
// Threads: under bitmapCacheLock, shared for what is const.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bitmap/bitmap_record.h"
#include "files/types.h"

namespace zel {

using BitmapRecords = std::vector<std::shared_ptr<BitmapRecord>>;

class BitmapCache {
 public:
  using Map = std::map<FileKey, BitmapRecords>;

  // Every entry, in the order of the keys; records in the order in which they were appended.
  [[nodiscard]] const Map& entries() const { return map_; }

  // The entry of a file. Where there is none it is made, without records; or null is returned.
  [[nodiscard]] const BitmapRecords& FindOrInsert(const FileKey& key);
  [[nodiscard]] const BitmapRecords* Find(const FileKey& key) const;

  void Append(const std::shared_ptr<BitmapRecord>& record);

  // The records with this id, in the order of entries(). Ids are the file system's, so that there
  // is one at most unless a bitmap file was moved or linked by hand.
  [[nodiscard]] BitmapRecords FindById(BitmapId bitmap_id) const;

  // Takes a record out of its entry, and the entry with its last one.
  void Erase(const std::shared_ptr<BitmapRecord>& record);

  // Drops the entry of a file when it has no record.
  void EraseIfEmpty(const FileKey& key);

 private:
  struct KeyHash {
    std::size_t operator()(const FileKey& key) const noexcept;
  };

  BitmapRecords& EntryOf(const FileKey& key);

  Map map_;
  std::unordered_map<FileKey, BitmapRecords*, KeyHash> by_key_;
  std::set<std::pair<BitmapId, FileKey>>
      by_id_;  // an entry holds an id once, but for discarded ones
};

// Every bitmap that is known. Never destroyed: threads may still use it while the process ends.
[[nodiscard]] BitmapCache& KnownBitmaps() ZEL_REQUIRES_SHARED(bitmapCacheLock);

}  // namespace zel
