// Tracked files: what one start of tracking costs with n files tracked, against writing as many
// bytes to the registry, which it cannot do without.
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <span>
#include <string>

#include "bench/bench.h"
#include "tests/integration/support/registry_key.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "tracking/volume_list.h"

namespace zel::bench {
namespace {

constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};

std::wstring PathOf(FileId file) {
  return L"D:\\Virtual machines\\Production\\Host " + std::to_wstring(file * 7919 % 100'003) +
         L"\\disk.vhdx";
}

void Start(FileId file) {
  bool is_new = false;
  if (!StartTrackingFile(PathOf(file), kVolume, file, is_new) || !is_new) std::abort();
}

VolumeFileList ListOf(FileId files) {
  VolumeFileList list(kVolume);
  for (FileId file = 1; file <= files; ++file) list.Set(PathOf(file), file);
  return list;
}

class TrackingBench {
 public:
  // One more start with `files - 1` files tracked. The stops between are not measured.
  bool StartWith(FileId files, int calls) {
    CloseTrackedFileList();  // so that the files before the last are not written one by one
    for (FileId file = 1; file < files; ++file) Start(file);
    SetTrackedFileListKey(key_.Open());
    const VolumeFileList list = ListOf(files);
    const std::span<const std::byte> value = list.value();
    const UniqueRegistryKey reference_key = key_.Open();
    double start = kNever;
    double write = kNever;
    for (int call = 0; call < calls; ++call) {
      start = std::min(start, BestSeconds(1, [&] { Start(files); }));
      StopTrackingFile(PathOf(files));
      write = std::min(write, BestSeconds(1, [&] { Write(reference_key.get(), value); }));
    }
    const std::string name = "start of tracking, " + std::to_string(files) + " files tracked";
    return Report(name.c_str(), start * 1e6, write * 1e6, "us", Bound::kAtMost, 2.5);
  }

 private:
  static constexpr double kNever = std::numeric_limits<double>::max();

  static void Write(HKEY key, std::span<const std::byte> value) {
    if (::RegSetValueExW(key, L"reference", 0, REG_BINARY,
                         reinterpret_cast<const BYTE*>(value.data()),
                         static_cast<DWORD>(value.size())) != ERROR_SUCCESS) {
      std::abort();
    }
  }

  test::TestRegistryKey key_;
};

bool Run() {
  TrackingBench bench;
  bool kept = bench.StartWith(10, 2000);
  kept = bench.StartWith(100, 1000) && kept;
  kept = bench.StartWith(1'000, 300) && kept;
  kept = bench.StartWith(10'000, 100) && kept;
  CloseTrackedFileList();
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::Run() ? 0 : 1;
}
