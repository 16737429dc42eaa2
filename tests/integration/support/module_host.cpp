// The service's modules in a process of their own, which a test restarts and kills: tracked files,
// bitmaps and message threads, connected to the simulated driver. Without the cleanup thread, which
// may take the directory of a file that is tracked anew at once.
//
//   module_host DIRECTORY      DIRECTORY\cbt is the CBT directory
//
// Says "ready", then answers each line of standard input with one line:
//
//   track FILE                         "0" when it is tracked
//   untrack FILE                       the code of ForceTrackingStop
//   create FILE BYTES BLOCKSIZE SIZE   the id of the new bitmap
//   sync                               the code of Synchronize, with the current time
//   bitmaps                            FILE ID CONTENTS of every bitmap, as the copy of it has them
//   unload                             unloads what nobody uses, as if it were idle
//
// Their end stops the modules in order.
#include <windows.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>

#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "config/settings.h"
#include "driver/driver_port.h"
#include "driver/message_threads.h"
#include "driver/synchronize.h"
#include "simulator/text.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/driver_names.h"
#include "tests/integration/support/import_hook.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "tracking/untracked_cleanup.h"
#include "win32/file_time.h"

extern "C" {
extern void* __imp_WaitForSingleObject;
}

namespace zel::test {
namespace {

// Synchronizations look every few milliseconds: a test has hundreds of them.
class EagerWaits {
 public:
  EagerWaits() { real_ = reinterpret_cast<Wait>(hook_.original()); }

 private:
  using Wait = decltype(&::WaitForSingleObject);
  static constexpr DWORD kLongestBackoffMs = 5000;

  static DWORD WINAPI Answer(HANDLE handle, DWORD limit_ms) {
    return real_(handle, limit_ms <= kLongestBackoffMs ? std::min(limit_ms, DWORD{3}) : limit_ms);
  }

  static inline Wait real_ = nullptr;
  ImportHook hook_{__imp_WaitForSingleObject, &Answer};
};

// Not there: opening it for the driver finds nothing, which is no error.
std::wstring PathOf(FileId file) {
  return L"C:\\nowhere\\" + std::to_wstring(file);
}

std::uint32_t Track(FileId file) {
  bool is_new = false;
  if (!StartTrackingFile(PathOf(file), kHostVolume, file, is_new)) return ERROR_ALREADY_EXISTS;
  return static_cast<std::uint32_t>(is_new ? NotifyDriverOfTrackingChanges() : S_OK);
}

std::string Create(FileId file, std::istream& arguments) {
  std::uint32_t bytes = 0;
  std::uint32_t block_size = 0;
  std::uint64_t file_size = 0;
  arguments >> bytes >> block_size >> file_size;
  BitmapId id = 0;
  const bool made = CreateNewBitmap(kHostVolume, file, bytes, block_size, file_size, id);
  return made ? std::to_string(id) : "failed";
}

std::string Contents(const PinnedBitmap& bitmap) {
  if (!bitmap) return "-";
  const auto* const first = reinterpret_cast<const std::byte*>(bitmap->header());
  const std::size_t bytes = sizeof(BitmapFileHeader) + bitmap->BitmapHeader.SizeOfBitMap / 8;
  return sim::BytesText({first, first + bytes});
}

std::string Bitmaps() {
  std::ostringstream answer;
  for (const auto& [file, bitmaps] : ListAllBitmaps()) {
    for (const BitmapInfo& info : bitmaps) {
      answer << file.file_id << ' ' << info.BitmapId << ' '
             << Contents(GetBitmapById(info.BitmapId)) << ' ';
    }
  }
  return answer.str();
}

std::string Unload() {
  BitmapIdleTimeout = -3600;
  UnloadIdleBitmaps();
  BitmapIdleTimeout = kDefaultBitmapIdleTimeout;
  return "0";
}

std::string Obey(const std::string& line) {
  std::istringstream words(line);
  std::string order;
  FileId file = 0;
  words >> order >> file;
  if (order == "track") return std::to_string(Track(file));
  if (order == "untrack") return std::to_string(ForceTrackingStop(PathOf(file), kHostVolume, file));
  if (order == "create") return Create(file, words);
  if (order == "sync") return std::to_string(Synchronize(SystemTimeNow()));
  if (order == "bitmaps") return Bitmaps();
  return order == "unload" ? Unload() : "unknown";
}

bool Start() {
  UniqueRegistryKey key;
  if (::RegCreateKeyW(HKEY_LOCAL_MACHINE, kTrackedListKey, key.put()) != ERROR_SUCCESS) {
    return false;
  }
  SetTrackedFileListKey(std::move(key));
  if (!LoadTrackedFileList()) return false;
  InitBitmapManager();
  return ConnectDriverPort() == S_OK && StartDriverThreads() == ERROR_SUCCESS;
}

void Stop() {
  StopDriverThreads();
  ShutdownBitmapManager();
  ShutdownTrackedFiles();
}

int Run(const std::wstring& directory) {
  UseCbtDirectoryOf(directory);
  const EagerWaits waits;  // before there are threads
  if (!Start()) return 1;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) std::cout << Obey(line) << std::endl;
  Stop();
  return 0;
}

}  // namespace
}  // namespace zel::test

int wmain(int count, wchar_t** arguments) {
  return count == 2 ? zel::test::Run(arguments[1]) : 2;
}
