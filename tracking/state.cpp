#include "tracking/state.h"

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

}  // namespace zel
