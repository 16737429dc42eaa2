// Tracked files with a registry key and a log of the test's own.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/registry_key.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "tracking/untracked_cleanup.h"
#include "tracking/volume_list_format.h"

namespace zel::test {

// In this order: the GUID's bytes count, not its text.
inline constexpr VolumeGuid kFirstVolume = {
    0x00000001, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
inline constexpr wchar_t kFirstVolumeText[] = L"00000001-89ab-cdef-0123-456789abcdef";
inline constexpr VolumeGuid kSecondVolume = {
    0x00000002, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
inline constexpr wchar_t kSecondVolumeText[] = L"00000002-89ab-cdef-0123-456789abcdef";

using Files = std::vector<std::pair<std::wstring, FileId>>;

inline std::string ValueOf(const VolumeFileList& list) {
  return {reinterpret_cast<const char*>(list.value().data()), list.value().size()};
}

// The registry value of a volume with these files.
inline std::string ValueOf(const VolumeGuid& volume, const Files& files) {
  VolumeFileList list(volume);
  for (const auto& [path, file_id] : files) list.Set(path, file_id);
  return ValueOf(list);
}

inline std::vector<TrackedFileEntry> Collect() {
  std::vector<TrackedFileEntry> entries;
  CollectTrackedFiles(entries);
  return entries;
}

// Each test needs a process of its own, as ctest gives it.
class TrackingFixture : public LogFixture {
 protected:
  ~TrackingFixture() override { ShutdownTrackedFiles(); }

  [[nodiscard]] const TestRegistryKey& key() const { return key_; }

  // As the service's start does.
  bool OpenAndLoad() {
    SetTrackedFileListKey(key_.Open());
    return LoadTrackedFileList();
  }

  // Ends the tracked files and begins anew, as a restart of the service does.
  bool Restart() {
    ShutdownTrackedFiles();
    return OpenAndLoad();
  }

  // Tracks a file that nothing speaks against.
  static void Track(std::wstring_view path, const VolumeGuid& volume, FileId file_id) {
    bool is_new = false;
    EXPECT_TRUE(StartTrackingFile(path, volume, file_id, is_new));
    EXPECT_TRUE(is_new);
  }

 private:
  TestRegistryKey key_;
};

}  // namespace zel::test
