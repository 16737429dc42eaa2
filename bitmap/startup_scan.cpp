#include "bitmap/startup_scan.h"

#include <cstddef>
#include <optional>
#include <vector>

#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "files/identified_files.h"
#include "logging/log_message.h"
#include "win32/thread_pool.h"

namespace zel {

namespace {

constexpr std::size_t kThreads = 4;

// Where the bitmaps of one tracked file lie.
struct FileDirectory {
  VolumeGuid volume_guid;
  FileId file_id;
  std::wstring path;
};

std::vector<FileDirectory> ListFileDirectories(const std::wstring& cbt_directory) {
  std::vector<FileDirectory> directories;
  for (const VolumeGuid& volume_guid : ListVolumeGuids(cbt_directory)) {
    const std::wstring volume_directory = cbt_directory + L'\\' + GuidToString(volume_guid);
    DirectoryListing listing(volume_directory);
    while (const WIN32_FIND_DATAW* entry = listing.Next()) {
      if (const std::optional<FileId> file_id = FileIdOfDirectory(*entry)) {
        directories.push_back({volume_guid, *file_id, volume_directory + L'\\' + entry->cFileName});
      }
    }
  }
  return directories;
}

void FindBitmapsOfFile(const FileDirectory& directory, FoundBitmap* found) {
  for (const IdentifiedFile& file : ListIdentifiedFiles(directory.path)) {
    const std::wstring path = directory.path + L'\\' + file.name;
    LogMessage(kBitmapDebug, L"Adding bitmap FileName %s, BitmapId 0x%016I64x to cache\n",
               path.c_str(), file.id);
    found(directory.volume_guid, directory.file_id, file.id, path,
          static_cast<std::uint32_t>(file.size));
  }
}

}  // namespace

void FindBitmapFiles(const std::wstring& cbt_directory, FoundBitmap* found) {
  const std::vector<FileDirectory> directories = ListFileDirectories(cbt_directory);
  ThreadPool threads;
  if (directories.size() > 1) threads.Start(kThreads - 1);  // and this one
  threads.RunAll(directories.size(), kThreads,
                 [&](std::size_t i) { FindBitmapsOfFile(directories[i], found); });
  threads.Stop();
}

}  // namespace zel
