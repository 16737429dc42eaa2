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

using BitmapDirectories = std::vector<BitmapDirectory>;

// Appends those of a volume's tracked files.
void AppendOfVolume(const BitmapDirectory& volume, BitmapDirectories& files,
                    BitmapDirectories& unread, LeavesOff* leaves_off) {
  if (leaves_off()) return unread.push_back(volume);
  DirectoryListing listing(volume.path);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    if (const std::optional<FileId> file_id = FileIdOfDirectory(*entry)) {
      files.push_back({volume.path + L'\\' + entry->cFileName, volume.volume_guid, *file_id});
    }
  }
  if (listing.HasFailed()) unread.push_back(volume);
}

BitmapDirectories ListFileDirectories(const BitmapDirectory& directory, BitmapDirectories& unread,
                                      LeavesOff* leaves_off) {
  BitmapDirectories files;
  if (directory.file_id != 0) return {directory};
  if (directory.volume_guid) {
    AppendOfVolume(directory, files, unread, leaves_off);
    return files;
  }
  bool has_failed = false;
  for (const VolumeGuid& volume_guid : ListVolumeGuids(directory.path, &has_failed)) {
    AppendOfVolume({directory.path + L'\\' + GuidToString(volume_guid), volume_guid}, files, unread,
                   leaves_off);
  }
  if (has_failed) unread.push_back(directory);
  return files;
}

// False when some of the file's bitmaps may be missing.
bool FindBitmapsOfFile(const BitmapDirectory& directory, FoundBitmap* found,
                       LeavesOff* leaves_off) {
  if (leaves_off()) return false;
  bool is_complete = false;
  for (const IdentifiedFile& file : ListIdentifiedFiles(directory.path, &is_complete)) {
    if (leaves_off()) return false;
    const std::wstring path = directory.path + L'\\' + file.name;
    LogMessage(kBitmapDebug, L"Adding bitmap FileName %s, BitmapId 0x%016I64x to cache\n",
               path.c_str(), file.id);
    found(*directory.volume_guid, directory.file_id, file.id, path,
          static_cast<std::uint32_t>(file.size));
  }
  return is_complete;
}

}  // namespace

std::vector<BitmapDirectory> FindBitmapFiles(const BitmapDirectory& directory, FoundBitmap* found,
                                             LeavesOff* leaves_off) {
  if (leaves_off()) return {directory};
  BitmapDirectories unread;
  const BitmapDirectories files = ListFileDirectories(directory, unread, leaves_off);
  std::vector<char> is_complete(files.size());  // each is one thread's
  ThreadPool threads;
  if (files.size() > 1) threads.Start(kThreads - 1);  // and this one
  threads.RunAll(files.size(), kThreads, [&](std::size_t i) {
    is_complete[i] = FindBitmapsOfFile(files[i], found, leaves_off);
  });
  threads.Stop();
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!is_complete[i]) unread.push_back(files[i]);
  }
  return unread;
}

}  // namespace zel
