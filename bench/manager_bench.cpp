// The bitmap manager: lookups with few and many known files, the heap that they take, the memory of
// a known bitmap, and the scan at start.
//
//   manager_bench                         everything
//   manager_bench scan INSTALL_DIRECTORY  one scan at start; the exit code is its time in 100 us
//   manager_bench bare INSTALL_DIRECTORY  the reference likewise
#include <process.h>
#include <windows.h>

#include <filesystem>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/counting_new.h"
#include "bench/many_bitmaps.h"
#include "bitmap/bitmap_manager.h"
#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/temp_directory.h"

namespace zel::bench {
namespace {

constexpr int kCalls = 1'000'000;

// Nanoseconds of a lookup and its release, over `files` in turn.
double LookupNanoseconds(const std::vector<FileId>& files) {
  const double seconds = BestSeconds(5, [&] {
    std::size_t next = 0;
    for (int call = 0; call < kCalls; ++call) {
      (void)FindBitmapsForFile(kVolume, files[next]);
      if (++next == files.size()) next = 0;
    }
  });
  return seconds / kCalls * 1e9;
}

constexpr FileId kKnown = 100'000;

// Adds the files and tells the heap bytes that each takes besides its path.
bool MemoryOfKnown(std::span<const FileId> files) {
  const std::size_t path_chars = DirectoryOf(0).size() + 1 + kBitmapNameLength;
  const std::int64_t before = heap_bytes;
  for (const FileId file : files) AddUnloadedBitmap(file);
  const double each = static_cast<double>(heap_bytes - before) / static_cast<double>(files.size());
  return Report("heap of a known bitmap besides its path",
                each - static_cast<double>((path_chars + 1) * sizeof(wchar_t)), 512, "bytes",
                Bound::kAtMost, 1.0);
}

// Nanoseconds of a memory access that waits for the one before, anywhere among as many objects as
// there are known files.
double AccessNanoseconds(std::mt19937_64& random) {
  struct Object {
    std::size_t next;
    char rest[504];
  };
  std::vector<std::size_t> order(kKnown);
  std::iota(order.begin(), order.end(), 0);
  std::ranges::shuffle(order, random);
  std::vector<Object> objects(kKnown);
  for (std::size_t i = 0; i < kKnown; ++i) objects[order[i]].next = order[(i + 1) % kKnown];
  volatile std::size_t at = 0;
  return BestSeconds(5,
                     [&] {
                       for (int step = 0; step < kCalls; ++step) at = objects[at].next;
                     }) /
         kCalls * 1e9;
}

// Nanoseconds of a lookup by id over all bitmaps of `files`.
double LookupByIdNanoseconds(const std::vector<FileId>& files) {
  std::vector<BitmapId> ids;
  for (const FileId file : files) ids.push_back(FindBitmapsForFile(kVolume, file)[0]->BitmapId);
  return BestSeconds(5,
                     [&] {
                       for (const BitmapId id : ids) (void)GetBitmapById(id);
                     }) /
         static_cast<double>(ids.size()) * 1e9;
}

bool Lookups() {
  std::vector<FileId> files(kKnown);
  for (FileId i = 0; i < kKnown; ++i) files[i] = 0x0001000000000000 + i * 37;
  std::mt19937_64 random(1);
  std::ranges::shuffle(files, random);
  const std::span<const FileId> all = files;

  std::vector<FileId> loaded;
  LoadMore(all.first(1), loaded);
  const double one = LookupNanoseconds(loaded);
  LoadMore(all.subspan(1, 999), loaded);
  const double thousand = LookupNanoseconds(loaded);
  constexpr FileId kUnloaded = 79'000;
  bool kept = MemoryOfKnown(all.subspan(1000, kUnloaded));
  LoadMore(all.subspan(1000 + kUnloaded), loaded);
  const double warm = LookupNanoseconds({loaded.front()});
  std::ranges::shuffle(loaded, random);
  const double many = LookupNanoseconds(loaded);
  std::printf("(of 100,000 known files %zu have a loaded bitmap and are looked up at random)\n",
              loaded.size());
  const double by_id = LookupByIdNanoseconds(loaded);
  const double access = AccessNanoseconds(random);
  kept = Report("lookup, 1,000 files known", thousand, one, "ns", Bound::kAtMost, 3.0) && kept;
  kept = Report("lookup, 100,000 files known", warm, one, "ns", Bound::kAtMost, 3.0) && kept;
  // Out of the caches a lookup costs its dependent memory accesses, whatever the container.
  kept = Report("a cold one, in memory accesses", many, access, "ns", Bound::kAtMost, 12.0) && kept;
  return Report("lookup by id against one by file", by_id, many, "ns", Bound::kAtMost, 5.0) && kept;
}

bool HeapOfLookups() {
  constexpr FileId kFile = 1;
  bool kept = true;
  for (FileTime bitmaps = 1; bitmaps <= 4; ++bitmaps) {
    if (!AddRealBitmap(kFile, kCreated + bitmaps)) std::abort();
    if (FindBitmapsForFile(kVolume, kFile).size() != bitmaps) std::abort();
    const std::int64_t before = heap_allocations;
    for (int call = 0; call < 1000; ++call) (void)FindBitmapsForFile(kVolume, kFile);
    const auto made = static_cast<double>(heap_allocations - before);
    const std::string name = "heap allocations, lookups of " + std::to_string(bitmaps) + " bitmaps";
    kept = Report(name.c_str(), made, 1000, "", Bound::kAtMost, 0.0) && kept;
  }
  return kept;
}

constexpr FileId kScannedFiles = 10'000;  // with two bitmaps each

// What a scan cannot do without: every directory listed, every file opened for its index.
std::uint64_t EnumerateBare(const std::wstring& directory) {
  std::uint64_t sum = 0;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::wstring path = directory + L'\\' + entry->cFileName;
    FileId id = 0;
    if ((entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      id = EnumerateBare(path);
    } else if (GetFileIdAndSize(path.c_str(), &id, nullptr) != ERROR_SUCCESS) {
      std::abort();
    }
    sum += id;
  }
  return sum;
}

constexpr double kUnitSeconds = 100e-6;

// The exit code of this program, called with `mode`: a time.
double SecondsInNewProcess(const wchar_t* mode, const std::wstring& install_directory) {
  wchar_t program[MAX_PATH];
  ::GetModuleFileNameW(nullptr, program, MAX_PATH);
  const std::wstring quoted = L'"' + install_directory + L'"';
  const auto code = ::_wspawnl(_P_WAIT, program, L"manager_bench", mode, quoted.c_str(), nullptr);
  return static_cast<double>(code) * kUnitSeconds;
}

double SecondsOfScan() {
  const double seconds = BestSeconds(1, InitBitmapManager);
  std::size_t found = 0;
  for (const auto& [file, infos] : ListAllBitmaps()) found += infos.size();
  if (found != 2 * kScannedFiles) std::abort();
  ShutdownBitmapManager();
  return seconds;
}

bool ScanAtStart(const std::wstring& install_directory) {
  for (FileId file = 1; file <= kScannedFiles; ++file) {
    WriteBitmap(file);
    WriteBitmap(file, kCreated + 1);
  }
  double scan = std::numeric_limits<double>::max();
  double bare = scan;
  for (int round = 0; round < 3; ++round) {
    bare = std::min(bare, SecondsInNewProcess(L"bare", install_directory));
    scan = std::min(scan, SecondsInNewProcess(L"scan", install_directory));
  }
  return Report("scan of 20,000 files at start", scan * 1e3, bare * 1e3, "ms", Bound::kAtMost, 1.3);
}

bool RunAll() {
  const WithoutDeviceFlushes hook;  // loads thousands; not measured
  const test::TempDirectory directory;
  const std::wstring install_directory = directory.path().wstring();
  test::UseCbtDirectoryOf(install_directory);
  bool kept = ScanAtStart(install_directory);
  std::filesystem::remove_all(GetCbtDirectory());
  kept = HeapOfLookups() && kept;
  kept = Lookups() && kept;
  ShutdownBitmapManager();
  return kept;
}

}  // namespace
}  // namespace zel::bench

int wmain(int count, wchar_t** arguments) {
  using namespace zel::bench;
  if (count != 3) return RunAll() ? 0 : 1;
  const std::wstring install_directory = arguments[2];
  const std::wstring& cbt_directory = zel::test::UseCbtDirectoryOf(install_directory);
  const double seconds = std::wstring_view(arguments[1]) == L"scan"
                             ? SecondsOfScan()
                             : BestSeconds(1, [&] { (void)EnumerateBare(cbt_directory); });
  return static_cast<int>(seconds / kUnitSeconds);
}
