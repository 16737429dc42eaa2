#include "service/service_main.h"

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "logging/logging.h"
#include "service/service_life.h"
#include "service/service_names.h"
#include "service/service_status.h"
#include "win32/process_event.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

constexpr std::uint32_t kStartWaitHintMs = 3000;

// Clear from the service main's first act to its last.
ProcessEvent serviceMainEndedEvent(ProcessEvent::Initially::kSet);

// Warnings are written without a configuration too, unlike the errors that name the step.
void LogFailedStart(std::uint32_t result) {
  LogMessage(kGeneralWarn,
             L"Service start failed; the service stays start-pending until it is stopped: %hs\n",
             ErrorInfo(result).text());
}

// The last report and the last line of a run.
void EndService(std::uint32_t result) {
  ReportServiceStatus(SERVICE_STOPPED, result, 0);
  LogMessage(kGeneralInfo, L"Service stopped\n");
  ShutdownLogging();
}

// The system waits for every call that has begun, however long its client keeps it. All that the
// service has to do is done by then.
constexpr std::uint32_t kClientsPatienceMs = 10'000;

void StopWithoutWaitingForClients() {
  StopService();
  if (WaitForRpcServerEnd(kClientsPatienceMs)) return;
  LogMessage(kGeneralWarn,
             L"A client keeps its call although the service has stopped: ending without it\n");
  EndService(NO_ERROR);
  ::TerminateProcess(::GetCurrentProcess(), NO_ERROR);
}

void RunService(Arguments arguments) {
  const SERVICE_STATUS_HANDLE handle =
      ::RegisterServiceCtrlHandlerW(kServiceName, ServiceCtrlHandler);
  if (handle == nullptr) {
    LogMessage(kGeneralError,
               L"VelmoraServiceMain call to RegisterServiceCtrlHandler failed: %hs\n",
               ErrorInfo().text());
    return;
  }
  SetServiceStatusHandle(handle);
  ReportServiceStatus(SERVICE_START_PENDING, 0, kStartWaitHintMs);
  LogMessage(kGeneralInfo, L"Service started\n");
  const std::uint32_t result = ZelServiceStart(arguments);
  if (result != 0 && !StopRequested) LogFailedStart(result);
  // A start that failed keeps the service start-pending until a stop control arrives.
  WaitForServiceStopped();
  EndService(result);
}

}  // namespace

void WINAPI VelmoraServiceMain(DWORD argument_count, LPWSTR* arguments) noexcept {
  serviceMainEndedEvent.Clear();
  RunService(Arguments(arguments, argument_count));
  serviceMainEndedEvent.Set();
}

void WINAPI ServiceCtrlHandler(DWORD control) noexcept {
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    StopWithoutWaitingForClients();
  }
}

BOOL WINAPI ConsoleCtrlHandler(DWORD control_type) noexcept {
  if (control_type != CTRL_C_EVENT && control_type != CTRL_BREAK_EVENT) return FALSE;
  LogMessage(kGeneralInfo, L"Stopping %s\n", kServiceDisplayName);
  StopWithoutWaitingForClients();
  return TRUE;
}

void WaitForServiceMainEnd() {
  serviceMainEndedEvent.Wait();
}

}  // namespace zel
