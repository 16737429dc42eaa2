#include "tracking/untracked_cleanup.h"

#include <windows.h>

#include "files/file_identity.h"
#include "files/install_directory.h"
#include "tracking/clean_volume_directory.h"
#include "tracking/registry_store.h"
#include "tracking/state.h"
#include "win32/stop_requested.h"
#include "win32/thread.h"

namespace zel {

namespace {

constexpr DWORD kPassIntervalMs = 60'000;
constexpr DWORD kEndTimeoutMs = 1'000;
constexpr DWORD kTerminatedExitCode = 641;
constexpr unsigned kStackReservation = 1u << 20;

// Held while the thread is started and ended, and while it is waited for: before TrackedFilesLock.
CriticalSection cleanupThreadLock;

// Returns the event that asks for the next pass; null when the thread is to end.
HANDLE BeginPass() ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  TrackedFilesState& state = TrackedFiles();
  if (state.CleanupShutdown) {
    state.CleanupWakeEvent.reset();
    return nullptr;
  }
  // Before the pass looks at the table, so that no change behind its back goes unnoticed.
  ::ResetEvent(state.CleanupWakeEvent.get());
  return state.CleanupWakeEvent.get();
}

unsigned __stdcall UntrackedCleanupThread(void*) noexcept {
  while (const HANDLE wake_event = BeginPass()) {
    for (const VolumeGuid& volume_guid : ListVolumeGuids(GetCbtDirectory())) {
      CleanVolumeDirectory(volume_guid);
    }
    ::WaitForSingleObject(wake_event, kPassIntervalMs);
  }
  return 0;
}

// Asks the thread to end. Null when there is none.
HANDLE RequestEnd() ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  TrackedFilesState& state = TrackedFiles();
  if (!state.CleanupThread) return nullptr;
  state.CleanupShutdown = true;
  if (state.CleanupWakeEvent) ::SetEvent(state.CleanupWakeEvent.get());
  return state.CleanupThread.get();
}

void WaitForEnd(HANDLE thread) ZEL_EXCLUDES(TrackedFilesLock) {
  if (::WaitForSingleObject(thread, kEndTimeoutMs) == WAIT_OBJECT_0) return;
  {
    // Never terminated while it owns the lock, which would then be held for ever.
    const LockGuard guard(TrackedFilesLock);
    ::TerminateThread(thread, kTerminatedExitCode);
  }
  ::WaitForSingleObject(thread, INFINITE);
}

void CloseThread() ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  TrackedFiles().CleanupThread.reset();
  TrackedFiles().CleanupWakeEvent.reset();  // a terminated thread has left it open
}

}  // namespace

bool StartCleanupThread() ZEL_EXCLUDES(cleanupThreadLock) {
  // Not left to the thread: terminated while it computes the path, it would keep everyone waiting.
  (void)GetCbtDirectory();
  const LockGuard thread_guard(cleanupThreadLock);
  const LockGuard guard(TrackedFilesLock);
  TrackedFilesState& state = TrackedFiles();
  // A stop came first and has emptied the table: to the thread, every file would be untracked.
  if (!state.TrackedFileListKey) return false;
  state.CleanupShutdown = false;
  state.CleanupWakeEvent.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  // Without its event the thread would run one pass after the other.
  if (!state.CleanupWakeEvent) return false;
  state.CleanupThread = StartThread(UntrackedCleanupThread, nullptr, kStackReservation);
  if (!state.CleanupThread) state.CleanupWakeEvent.reset();
  return static_cast<bool>(state.CleanupThread);
}

void WakeCleanup() ZEL_EXCLUDES(TrackedFilesLock) {
  const LockGuard guard(TrackedFilesLock);
  WakeCleanupThread();
}

void ShutdownTrackedFiles() ZEL_EXCLUDES(cleanupThreadLock) {
  const LockGuard thread_guard(cleanupThreadLock);
  if (const HANDLE thread = RequestEnd()) {
    WaitForEnd(thread);
    CloseThread();
  }
  if (StopRequested) TakeBackTrackingStarts();
  CloseTrackedFileList();
}

}  // namespace zel
