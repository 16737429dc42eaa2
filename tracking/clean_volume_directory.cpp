#include "tracking/clean_volume_directory.h"

#include <windows.h>

#include <optional>

#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "logging/log_message.h"
#include "tracking/state.h"

namespace zel {

namespace {

bool HasTrackedFiles(const VolumeGuid& volume_guid) ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  return TrackedFiles().table.contains(volume_guid);
}

}  // namespace

void CleanVolumeDirectory(const VolumeGuid& volume_guid) {
  const std::wstring volume_text = GuidToString(volume_guid);
  const std::wstring directory = GetCbtDirectory() + L'\\' + volume_text;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::optional<FileId> file_id = FileIdOfDirectory(*entry);
    if (!file_id || IsTracked({volume_guid, *file_id})) continue;
    LogMessage(kGeneralDebug, L"Cleaning up directory for untracked Volume %s, FileId 0x%016I64x\n",
               volume_text.c_str(), *file_id);
    DeleteDirectoryTree(directory + L'\\' + entry->cFileName);
  }
  if (!HasTrackedFiles(volume_guid)) ::RemoveDirectoryW(directory.c_str());
}

void DeleteDirectoryTree(const std::wstring& path) {
  DirectoryListing listing(path);  // closed behind the last entry: removable then
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::wstring full = path + L'\\' + entry->cFileName;
    if ((entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      DeleteDirectoryTree(full);
    } else if (::DeleteFileW(full.c_str())) {
      LogMessage(kBitmapDebug, L"Deleted bitmap %s\n", full.c_str());
    }
  }
  ::RemoveDirectoryW(path.c_str());
}

}  // namespace zel
