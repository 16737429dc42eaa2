#include "bitmap/startup_scan.h"

#include <process.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "common/directory_listing.h"
#include "common/identified_files.h"
#include "common/identity.h"
#include "logging/log_message.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr std::size_t kThreads = 4;  // the calling one among them
constexpr unsigned kStackReservation = 1024 * 1024;

// Where the bitmaps of one tracked file lie.
struct FileDirectory {
  VolumeGuid volume_guid;
  FileId file_id;
  std::wstring path;
};

// Outlives the threads that share it.
struct Scan {
  std::vector<FileDirectory> directories;
  FoundBitmap* found;
  std::atomic<std::size_t> next = 0;  // the first directory that no thread has taken
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

void TakeDirectories(Scan& scan) {
  for (;;) {
    const std::size_t taken = scan.next.fetch_add(1, std::memory_order_relaxed);
    if (taken >= scan.directories.size()) return;
    FindBitmapsOfFile(scan.directories[taken], scan.found);
  }
}

unsigned __stdcall ScanThread(void* scan) {
  TakeDirectories(*static_cast<Scan*>(scan));
  return 0;
}

// As many as can be made: what the others would have taken, the calling thread takes.
std::vector<UniqueThread> StartThreads(Scan& scan) {
  std::vector<UniqueThread> threads;
  const std::size_t useful = std::min(kThreads, scan.directories.size());
  while (threads.size() + 1 < useful) {
    UniqueThread thread(
        reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, kStackReservation, ScanThread, &scan,
                                                  STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr)));
    if (!thread) break;
    threads.push_back(std::move(thread));
  }
  return threads;
}

}  // namespace

void FindBitmapFiles(const std::wstring& cbt_directory, FoundBitmap* found) {
  Scan scan{.directories = ListFileDirectories(cbt_directory), .found = found};
  const std::vector<UniqueThread> threads = StartThreads(scan);
  TakeDirectories(scan);
  for (const UniqueThread& thread : threads) ::WaitForSingleObject(thread.get(), INFINITE);
}

}  // namespace zel
