// When a cleanup of untracked files has passed, and how its thread is waited for.
#pragma once

#include <windows.h>

#include <atomic>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/poll.h"

extern "C" void* __imp_WaitForSingleObject;

namespace zel::test {

// Sees the cleanup thread's waits for its event and the shutdown's wait for the thread.
class CleanupWaits {
 public:
  static constexpr DWORD kPassInterval = 60'000;
  static constexpr DWORD kEndTimeout = 1'000;

  static inline std::atomic<int> passes{0};     // that ended: waits begun
  static inline std::atomic<int> end_waits{0};  // for the thread
  static inline std::atomic<bool> pass_interval_is_over{false};
  static inline std::atomic<bool> end_timeout_is_over{false};

  [[nodiscard]] static bool PassesReach(int count) {
    return PollUntil([=] { return passes >= count; });
  }

 private:
  static DWORD WINAPI Wait(HANDLE handle, DWORD timeout_ms) {
    if (timeout_ms == kPassInterval) {
      ++passes;
      if (pass_interval_is_over) return real_wait_(handle, 1);
    }
    if (timeout_ms == kEndTimeout) {
      ++end_waits;
      return real_wait_(handle, end_timeout_is_over ? 1 : INFINITE);
    }
    return real_wait_(handle, timeout_ms);
  }

  static inline auto* const real_wait_ =
      reinterpret_cast<decltype(&::WaitForSingleObject)>(__imp_WaitForSingleObject);
  ImportHook hook_{__imp_WaitForSingleObject, &Wait};
};

}  // namespace zel::test
