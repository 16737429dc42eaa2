// The end of a program that a test kills.
#pragma once

#include <windows.h>

#include "win32/handles.h"

namespace zel::test {

// Sets the named event of the test's and waits. Returns an exit code, if at all, when there is
// none.
inline int WaitToBeKilled(const wchar_t* event_name) {
  const UniqueEvent event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, event_name));
  if (event && ::SetEvent(event.get())) ::WaitForSingleObject(::GetCurrentProcess(), INFINITE);
  return 1;
}

}  // namespace zel::test
