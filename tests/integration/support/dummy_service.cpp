// A service for the tests of starting, stopping and removing services, under any name.
//
//   dummy_service             stops when it is told to
//   dummy_service stubborn    stays as it is until the event Global\zel_dummy_service_may_stop
//   dummy_service slow        the same, but reports that it is stopping
#include <windows.h>

#include <cwchar>
#include <string_view>

namespace {

SERVICE_STATUS_HANDLE status_handle = nullptr;
HANDLE stop_event = nullptr;
bool waits_for_permission = false;
bool reports_stopping = false;

void Report(DWORD state) {
  SERVICE_STATUS status = {};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
  ::SetServiceStatus(status_handle, &status);
}

void WINAPI Handle(DWORD control) {
  if (control != SERVICE_CONTROL_STOP) return;
  if (reports_stopping) Report(SERVICE_STOP_PENDING);
  ::SetEvent(stop_event);
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
  status_handle = ::RegisterServiceCtrlHandlerW(L"", Handle);
  Report(SERVICE_RUNNING);
  ::WaitForSingleObject(stop_event, INFINITE);
  if (waits_for_permission) {
    HANDLE may_stop = ::CreateEventW(nullptr, TRUE, FALSE, L"Global\\zel_dummy_service_may_stop");
    ::WaitForSingleObject(may_stop, INFINITE);
  }
  Report(SERVICE_STOPPED);
}

}  // namespace

int wmain(int argument_count, wchar_t** arguments) {
  const std::wstring_view manner = argument_count > 1 ? arguments[1] : L"";
  reports_stopping = manner == L"slow";
  waits_for_permission = reports_stopping || manner == L"stubborn";
  stop_event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  wchar_t any_name[] = L"";
  const SERVICE_TABLE_ENTRYW services[] = {{any_name, ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
