#include "logging/log_file.h"
#include "logging/logging_threads.h"

namespace zel {

unsigned __stdcall LogRollerThread(void* context) {
  constexpr DWORD kCheckIntervalMs = 30 * 60 * 1000;
  const auto& thread = *static_cast<const LoggingThreadContext*>(context);
  const HANDLE events[] = {thread.shutdown_event, thread.roll_event};
  do {
    RollLogFileIfLarge();
  } while (::WaitForMultipleObjects(2, events, FALSE, kCheckIntervalMs) != WAIT_OBJECT_0);
  return 0;
}

}  // namespace zel
