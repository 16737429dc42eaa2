#include "service/program.h"

#include <windows.h>

#include <cstdio>
#include <string>

#include "config/config_file.h"
#include "errors/error_info.h"
#include "files/install_directory.h"
#include "logging/log_message.h"
#include "logging/logging.h"
#include "service/install.h"
#include "service/log_file_path.h"
#include "service/service_life.h"
#include "service/service_main.h"
#include "service/service_names.h"
#include "service/service_status.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// Only the service mode sets the log up; in the other modes every line is dropped.
void LogUsage() {
  LogMessage(kGeneralInfo, L"%s -install          to install the service\n", kServiceName);
  LogMessage(kGeneralInfo, L"%s -remove           to remove the service\n", kServiceName);
  LogMessage(kGeneralInfo, L"%s -debug <params>   to run as a console app for debugging\n",
             kServiceName);
}

// Has the CBT directory's path computed, which can take long, before any thread waits for it.
void InitCbtDirectory() {
  static_cast<void>(GetCbtDirectory());
}

// In the console, where no log is.
void TellFailedStart(std::uint32_t result) {
  LogMessage(kGeneralError, L"ZelServiceStart failed %d\n", result);
  std::fprintf(stderr, "ZelServiceStart failed %d: %s\n", static_cast<int>(result),
               ErrorInfo(result).text());
}

void RunInConsole(Arguments arguments) {
  InitCbtDirectory();
  DebugMode = true;
  LogMessage(kGeneralInfo, L"Debugging %s\n", kServiceName);
  ::SetConsoleCtrlHandler(ConsoleCtrlHandler, TRUE);
  const std::uint32_t result = ZelServiceStart(arguments);
  if (result != 0) TellFailedStart(result);
  // Nobody has asked for the stop of a start that failed by itself; a stop from the console may
  // still be running.
  if (!StopRequested) StopService();
  WaitForRunningStops();
}

void RunUnderServiceManager(Arguments arguments) {
  InitCbtDirectory();
  wchar_t log_path[MAX_PATH];
  GetLogFilePath(arguments.empty() ? L"" : arguments[0], log_path);
  InitLogging(log_path, kConfigurationFile);
  std::wstring service_name = kServiceName;
  const SERVICE_TABLE_ENTRYW services[] = {{service_name.data(), VelmoraServiceMain},
                                           {nullptr, nullptr}};
  if (::StartServiceCtrlDispatcherW(services)) {
    // It returns when the service is reported as stopped. An RPC server that could not be set up
    // reports that too, and then no control comes that would stop the rest.
    if (!StopRequested) StopService();
    WaitForServiceMainEnd();
    return;
  }
  LogMessage(kGeneralError, L"StartServiceCtrlDispatcher failed: %hs\n", ErrorInfo().text());
  ShutdownLogging();
}

}  // namespace

void RunProgram(Arguments arguments) {
  switch (SelectMode(arguments)) {
    case ProgramMode::kInstall:
      return InstallService();
    case ProgramMode::kRemove:
      return RemoveService();
    case ProgramMode::kDebug:
      return RunInConsole(arguments);
    case ProgramMode::kUsage:
      return LogUsage();
    case ProgramMode::kService:
      return RunUnderServiceManager(arguments);
  }
}

}  // namespace zel
