// A manual-reset event that lives as long as the process.
//
// Threads: any.
// Lifetime: made for objects of static storage; never closed, so that a thread still running while
// the process ends finds it intact.
// Errors: an event that could not be created is never set, and waits for it return at once.
#pragma once

#include <windows.h>

namespace zel {

class ProcessEvent {
 public:
  enum class Initially : BOOL { kClear = FALSE, kSet = TRUE };

  explicit ProcessEvent(Initially state) noexcept
      : event_(::CreateEventW(nullptr, TRUE, static_cast<BOOL>(state), nullptr)) {}
  ProcessEvent(const ProcessEvent&) = delete;
  ProcessEvent& operator=(const ProcessEvent&) = delete;

  void Set() noexcept { ::SetEvent(event_); }
  void Clear() noexcept { ::ResetEvent(event_); }

  // Returns when the event is set; no time-out.
  void Wait() const noexcept { ::WaitForSingleObject(event_, INFINITE); }

  // Returns when the event is set, or false when it has not been for so long.
  [[nodiscard]] bool WaitFor(DWORD timeout_ms) const noexcept {
    return ::WaitForSingleObject(event_, timeout_ms) != WAIT_TIMEOUT;
  }

 private:
  HANDLE event_;
};

}  // namespace zel
