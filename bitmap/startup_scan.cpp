#include "bitmap/startup_scan.h"

#include <optional>

#include "common/directory_listing.h"
#include "common/identity.h"
#include "logging/log_message.h"

namespace zel {

namespace {

void FindBitmapsOfFile(const VolumeGuid& volume_guid, FileId file_id, const std::wstring& directory,
                       FoundBitmap* found) {
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::wstring path = directory + L'\\' + entry->cFileName;
    BitmapId bitmap_id;
    if (GetFileIdAndSize(path.c_str(), &bitmap_id, nullptr) != ERROR_SUCCESS) continue;
    LogMessage(kBitmapDebug, L"Adding bitmap FileName %s, BitmapId 0x%016I64x to cache\n",
               path.c_str(), bitmap_id);
    found(volume_guid, file_id, bitmap_id, path, entry->nFileSizeLow);
  }
}

}  // namespace

void FindBitmapFiles(const std::wstring& cbt_directory, FoundBitmap* found) {
  for (const VolumeGuid& volume_guid : ListVolumeGuids(cbt_directory)) {
    const std::wstring volume_directory = cbt_directory + L'\\' + GuidToString(volume_guid);
    DirectoryListing listing(volume_directory);
    while (const WIN32_FIND_DATAW* entry = listing.Next()) {
      if (const std::optional<FileId> file_id = FileIdOfDirectory(*entry)) {
        FindBitmapsOfFile(volume_guid, *file_id, volume_directory + L'\\' + entry->cFileName,
                          found);
      }
    }
  }
}

}  // namespace zel
