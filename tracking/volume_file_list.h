// The tracked files of one volume: path to file id, and which ids there are. Pure.
//
// Threads: the lists of the tracked file table are used under TrackedFilesLock.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "common/types.h"
#include "tracking/path_compare.h"

namespace zel {

class VolumeFileList {
 public:
  using Files = std::map<std::wstring, FileId, PathLess>;

  explicit VolumeFileList(const VolumeGuid& volume_guid) : volume_guid_(volume_guid) {}

  [[nodiscard]] const VolumeGuid& volume_guid() const { return volume_guid_; }
  [[nodiscard]] const Files& files() const { return files_; }

  // The id of `path`; 0 when it is not tracked, which a stored 0 means as well.
  [[nodiscard]] FileId Find(std::wstring_view path) const;

  // Whether some path has this id: one file can be tracked by several paths.
  [[nodiscard]] bool HasFileId(FileId file_id) const { return ids_.contains(file_id); }

  // Stores the id of `path`. False when it is stored already. A path that is there in another case
  // keeps the case it has.
  bool Set(std::wstring_view path, FileId file_id);

  // False when there is no such path.
  bool Erase(std::wstring_view path);

 private:
  VolumeGuid volume_guid_;
  Files files_;
  std::multiset<FileId> ids_;  // one for each of files_: the cleanup asks for every directory
};

}  // namespace zel
