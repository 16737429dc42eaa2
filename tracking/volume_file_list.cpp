#include "tracking/volume_file_list.h"

namespace zel {

FileId VolumeFileList::Find(std::wstring_view path) const {
  const auto file = files_.find(path);
  return file == files_.end() ? 0 : file->second;
}

bool VolumeFileList::Set(std::wstring_view path, FileId file_id) {
  const auto [file, is_new] = files_.try_emplace(std::wstring(path), file_id);
  if (!is_new) {
    if (file->second == file_id) return false;
    ids_.erase(ids_.find(file->second));
    file->second = file_id;
  }
  ids_.insert(file_id);
  return true;
}

bool VolumeFileList::Erase(std::wstring_view path) {
  const auto file = files_.find(path);
  if (file == files_.end()) return false;
  ids_.erase(ids_.find(file->second));
  files_.erase(file);
  return true;
}

}  // namespace zel
