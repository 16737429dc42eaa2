#include "service/service_start.h"

#include <windows.h>

#include "common/service_status.h"
#include "logging/log_message.h"
#include "win32/critical_section.h"
#include "win32/process_event.h"

namespace zel {

namespace {

// Set by the first stop; the service blocks on it while it runs.
ProcessEvent stopRequestedEvent(ProcessEvent::Initially::kClear);

// The lock makes one step of the counter and the event: with the two apart, a stop that has just
// counted itself out could set the event that a new stop has just cleared.
CriticalSection stopLock;
std::uint32_t stopsInProgress ZEL_GUARDED_BY(stopLock) = 0;
ProcessEvent serviceStoppedEvent(ProcessEvent::Initially::kClear);  // changed under stopLock

void BeginStop() {
  const LockGuard guard(stopLock);
  serviceStoppedEvent.Clear();
  ++stopsInProgress;
}

void EndStop() {
  const LockGuard guard(stopLock);
  if (--stopsInProgress == 0) serviceStoppedEvent.Set();
}

bool StopIsRunning() {
  const LockGuard guard(stopLock);
  return stopsInProgress != 0;
}

}  // namespace

std::uint32_t ZelServiceStart(Arguments arguments) {
  if (DebugMode && AsksForNoDriver(arguments)) {
    LogMessage(kGeneralInfo, L"service running in driver ignore mode\n");
  }
  if (ReportServiceStatus(SERVICE_RUNNING, 0, 0)) stopRequestedEvent.Wait();
  return 0;
}

void StopService() {
  BeginStop();
  stopRequestedEvent.Set();
  EndStop();
}

void WaitForServiceStopped() {
  serviceStoppedEvent.Wait();
}

void WaitForRunningStops() {
  if (StopIsRunning()) serviceStoppedEvent.Wait();
}

}  // namespace zel
