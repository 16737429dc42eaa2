// The simulated driver. Test bench only; never installed with the service.
//
//   driversim                                the driver's service, started by the service manager
//   driversim serve                          the same in a console
//   driversim tell ORDER...                  gives an order and prints the answer
//   driversim run -- PROGRAM ARGUMENT...     runs a program whose file activity the driver sees
//   driversim client -- PROGRAM ARGUMENT...  runs a client of the service's RPC interface
#include <windows.h>

#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "simulator/control_client.h"
#include "simulator/run.h"
#include "simulator/servers.h"

namespace zel::sim {
namespace {

enum ExitCode { kSuccess = 0, kRefused = 1, kUsage = 2, kNoDriver = kReportsLost };

// Plays the driver until it is told to stop; `running` is called when it can be connected to.
DWORD RunDriver(Driver& driver, void (*running)()) {
  if (!driver.usable()) return ERROR_NO_SYSTEM_RESOURCES;
  const UniqueFile port = MakePort();
  if (!port) return ::GetLastError();
  if (const DWORD error = StartControlChannel(driver)) return error;
  running();
  RunPort(driver, port);
  driver.Shutdown();
  return ERROR_SUCCESS;
}

// The channel's threads use the driver until the process has ended: its main function must not
// return.
int Serve() {
  Driver driver;
  const DWORD error = RunDriver(driver, [] {});
  if (error == ERROR_SUCCESS) ::ExitProcess(kSuccess);
  std::fprintf(stderr, "driversim: cannot serve, error %lu\n", error);
  ::ExitProcess(kNoDriver);
}

int Tell(std::span<wchar_t*> words) {
  std::string order;
  for (const std::wstring_view word : words) order += std::string(word.begin(), word.end()) + " ";
  ControlClient client;
  const std::optional<std::string> answer = client.Tell(order);
  if (!answer) {
    std::fputs("driversim: no driver runs\n", stderr);
    return kNoDriver;
  }
  std::puts(answer->c_str());
  return answer->starts_with("ok") ? kSuccess : kRefused;
}

// The program's command line stays as it was written.
int RunProgram(std::wstring_view mark, int (*run)(std::wstring command_line)) {
  const std::wstring all = ::GetCommandLineW();
  const std::size_t at = all.find(mark);
  if (at != all.npos) return run(all.substr(at + mark.size()));
  std::fputs("driversim: one blank each between the task, -- and the program\n", stderr);
  return kUsage;
}

// The service.

SERVICE_STATUS_HANDLE status_handle = nullptr;
Driver* service_driver = nullptr;

void Report(DWORD state, DWORD exit_code = ERROR_SUCCESS) {
  SERVICE_STATUS status = {};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  status.dwWin32ExitCode = exit_code;
  ::SetServiceStatus(status_handle, &status);
}

void WINAPI Handle(DWORD control) {
  if (control == SERVICE_CONTROL_STOP) ::SetEvent(service_driver->stop_event());
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
  Driver driver;
  service_driver = &driver;
  status_handle = ::RegisterServiceCtrlHandlerW(L"", Handle);
  const DWORD error = RunDriver(driver, [] { Report(SERVICE_RUNNING); });
  Report(SERVICE_STOPPED, error);
  ::ExitProcess(error);
}

int RunService() {
  wchar_t any_name[] = L"";
  const SERVICE_TABLE_ENTRYW services[] = {{any_name, ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(services) ? kSuccess : kNoDriver;
}

int Run(std::span<wchar_t*> arguments) {
  if (arguments.empty()) return RunService();
  const std::wstring_view task = arguments[0];
  if (task == L"serve" && arguments.size() == 1) return Serve();
  if (task == L"tell" && arguments.size() > 1) return Tell(arguments.subspan(1));
  if (arguments.size() > 2 && std::wstring_view(arguments[1]) == L"--") {
    if (task == L"run") return RunProgram(L" run -- ", RunReported);
    if (task == L"client") return RunProgram(L" client -- ", RunClient);
  }
  std::fputs(
      "usage: driversim [serve | tell ORDER... | run -- PROGRAM ARGUMENT... | client -- PROGRAM "
      "ARGUMENT...]\n",
      stderr);
  return kUsage;
}

}  // namespace
}  // namespace zel::sim

int wmain(int count, wchar_t** arguments) {
  return zel::sim::Run({arguments + 1, static_cast<std::size_t>(count - 1)});
}
