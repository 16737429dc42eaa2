#include "service/service_status.h"

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "service/service_report.h"

namespace zel {

namespace {

static_assert(kServiceStateStopped == SERVICE_STOPPED &&
              kServiceStateStartPending == SERVICE_START_PENDING &&
              kServiceStateRunning == SERVICE_RUNNING);

SERVICE_STATUS_HANDLE status_handle = nullptr;
std::uint32_t next_checkpoint = 1;  // rises over the whole run

// The report of the stopped state closes the manager's end: whatever is reported after it may end
// the process.
constinit std::atomic<bool> stopped_was_reported{false};

// Whether the report is the first of the stopped state, or comes before it.
bool IsToBeSent(std::uint32_t state) {
  return state == SERVICE_STOPPED ? !stopped_was_reported.exchange(true)
                                  : !stopped_was_reported.load();
}

}  // namespace

void SetServiceStatusHandle(SERVICE_STATUS_HANDLE handle) {
  status_handle = handle;
}

bool ReportServiceStatus(std::uint32_t state, std::uint32_t win32_exit_code,
                         std::uint32_t wait_hint_ms) {
  if (DebugMode || !IsToBeSent(state)) return true;
  const ServiceReport report =
      MakeServiceReport(state, win32_exit_code, wait_hint_ms, next_checkpoint);
  SERVICE_STATUS status = {
      .dwServiceType = SERVICE_WIN32_OWN_PROCESS,
      .dwCurrentState = report.state,
      .dwControlsAccepted = report.controls_accepted,
      .dwWin32ExitCode = report.win32_exit_code,
      .dwServiceSpecificExitCode = 0,
      .dwCheckPoint = report.checkpoint,
      .dwWaitHint = report.wait_hint_ms,
  };
  if (::SetServiceStatus(status_handle, &status)) return true;
  LogMessage(kGeneralError, L"SetServiceStatus(%lu, %lu, %lu) failed: %hs\n", state,
             win32_exit_code, wait_hint_ms, ErrorInfo().text());
  return false;
}

}  // namespace zel
