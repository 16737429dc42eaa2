// Opening the list of tracked files when the service starts, and the one state of the tracked
// files.
#include "tracking/state.h"

#include <windows.h>

#include <utility>

#include "files/install_directory.h"
#include "logging/log_message.h"
#include "tracking/last_cbt_directory.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "tracking/untracked_cleanup.h"
#include "win32/handles.h"

namespace zel {

CriticalSection TrackedFilesLock;

TrackedFilesState& TrackedFiles() {
  static TrackedFilesState& state = *new TrackedFilesState;
  return state;
}

void WakeCleanupThread() {
  const TrackedFilesState& state = TrackedFiles();
  if (state.CleanupThread && state.CleanupWakeEvent && !state.CleanupShutdown) {
    ::SetEvent(state.CleanupWakeEvent.get());
  }
}

namespace {

constexpr const wchar_t* kObsoleteKeys[] = {
    L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor\\Parameters\\TrackedFiles",
    L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor\\Parameters\\FileReliability"};

constexpr wchar_t kParametersKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor\\Parameters";
constexpr wchar_t kTrackedFileListKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor\\Parameters\\TrackedFileList";

// Opens a key, or makes it. Null, which is logged, when it can be neither.
UniqueRegistryKey CreateKey(const wchar_t* path) {
  UniqueRegistryKey key;
  const auto result =
      static_cast<std::uint32_t>(::RegCreateKeyW(HKEY_LOCAL_MACHINE, path, key.put()));
  if (result != ERROR_SUCCESS) {
    LogMessage(kGeneralWarn, L"RegCreateKey %ls failed: %u\n", path, result);
  }
  return key;
}

}  // namespace

void DeleteObsoleteRegistryKeys() {
  for (const wchar_t* key : kObsoleteKeys) {
    if (::RegDeleteKeyW(HKEY_LOCAL_MACHINE, key) == ERROR_SUCCESS) {
      LogMessage(kGeneralInfo, L"Deleted obsolete registry key: %s\n", key);
    }
  }
}

void StartTrackedFiles() {
  UniqueRegistryKey list_key = CreateKey(kTrackedFileListKey);
  if (!list_key) return;
  SetTrackedFileListKey(std::move(list_key));
  const bool is_read = LoadTrackedFileList();
  if (const UniqueRegistryKey key = CreateKey(kParametersKey)) {
    NoteCbtDirectory(key.get(), GetCbtDirectory());
  }
  if (is_read) StartCleanupThread();
}

}  // namespace zel
