// Waiting for what another thread or process does, with a limit.
#pragma once

#include <windows.h>

namespace zel::test {

// Asks `condition` every 10 ms until it holds; false when it does not within `limit_ms`.
template <class Condition>
[[nodiscard]] bool PollUntil(Condition condition, DWORD limit_ms = 20'000) {
  for (const ULONGLONG end = ::GetTickCount64() + limit_ms; !condition(); ::Sleep(10)) {
    if (::GetTickCount64() >= end) return false;
  }
  return true;
}

}  // namespace zel::test
