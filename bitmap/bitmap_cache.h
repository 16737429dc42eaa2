// The container of all bitmap records: the ordered map that listings and scans walk, and two
// indexes beside it, without which a lookup would cost more the more files are tracked.
//
// Threads: everything under bitmapCacheLock.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bitmap/bitmap_record.h"
#include "common/types.h"

namespace zel {

using BitmapRecords = std::vector<std::shared_ptr<BitmapRecord>>;

class BitmapCache {
 public:
  using Map = std::map<FileKey, BitmapRecords>;

  // Every entry, in the order of the keys; records in the order in which they were appended.
  [[nodiscard]] Map& entries() { return map_; }

  // The entry of a file. Where there is none it is made, without records; or null is returned.
  [[nodiscard]] BitmapRecords& FindOrInsert(const FileKey& key);
  [[nodiscard]] BitmapRecords* Find(const FileKey& key);

  void Append(const std::shared_ptr<BitmapRecord>& record);

  // The records with this id, in the order of entries(). Ids are the file system's, so that there
  // is one at most unless a bitmap file was moved or linked by hand.
  [[nodiscard]] BitmapRecords FindById(BitmapId bitmap_id) const;

  // Takes a record out of its entry, which stays when it is empty, and returns what follows.
  BitmapRecords::iterator Erase(BitmapRecords& records, BitmapRecords::iterator record);

  // Drops the entry of a file when it has no record left.
  void EraseIfEmpty(const FileKey& key);

 private:
  struct KeyHash {
    std::size_t operator()(const FileKey& key) const noexcept;
  };

  Map map_;
  std::unordered_map<FileKey, BitmapRecords*, KeyHash> by_key_;
  std::set<std::pair<BitmapId, FileKey>> by_id_;  // an entry holds an id once
};

}  // namespace zel
