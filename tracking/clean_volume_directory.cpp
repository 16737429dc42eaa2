#include "tracking/clean_volume_directory.h"

#include <windows.h>

#include <optional>

#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "logging/log_message.h"
#include "tracking/state.h"
#include "win32/no_links.h"

namespace zel {

namespace {

bool EndIsAskedFor() ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  return TrackedFiles().CleanupShutdown;
}

// An empty directory, or the link in its place, whose listing has been refused.
void RemoveDirectoryInPlace(const std::wstring& path) {
  if (CheckPlace(path, 1) == ERROR_SUCCESS) ::RemoveDirectoryW(path.c_str());
}

bool MayDelete(const FileKey& file) {
  return !EndIsAskedFor() && !IsTracked(file);
}

bool MayDelete(const VolumeGuid& volume_guid) ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  const TrackedFilesState& state = TrackedFiles();
  return !state.CleanupShutdown && !state.table.contains(volume_guid);
}

}  // namespace

void CleanVolumeDirectory(const VolumeGuid& volume_guid) {
  const std::wstring volume_text = GuidToString(volume_guid);
  const std::wstring directory = GetCbtDirectory() + L'\\' + volume_text;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    if (EndIsAskedFor()) return;
    const std::optional<FileId> file_id = FileIdOfDirectory(*entry);
    if (!file_id) continue;
    const auto may_delete = [file = FileKey{volume_guid, *file_id}] { return MayDelete(file); };
    if (!may_delete()) continue;
    LogMessage(kGeneralDebug, L"Cleaning up directory for untracked Volume %s, FileId 0x%016I64x\n",
               volume_text.c_str(), *file_id);
    DeleteDirectoryTree(directory + L'\\' + entry->cFileName, may_delete);
  }
  if (MayDelete(volume_guid)) RemoveDirectoryInPlace(directory);
}

bool DeleteDirectoryTree(const std::wstring& path, const std::function<bool()>& may_delete) {
  DirectoryListing listing(path);  // closed after the last entry: removable then
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::wstring full = path + L'\\' + entry->cFileName;
    if ((entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      if (!DeleteDirectoryTree(full, may_delete)) return false;
      continue;
    }
    if (!may_delete()) return false;
    if (DeleteInPlace(full, 1) != ERROR_SUCCESS) continue;
    LogMessage(kBitmapDebug, L"Deleted bitmap %s\n", full.c_str());
  }
  if (!may_delete()) return false;
  RemoveDirectoryInPlace(path);
  return true;
}

}  // namespace zel
