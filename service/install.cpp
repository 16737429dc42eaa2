#include "service/install.h"

#include <windows.h>

#include <string>

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "service/command_line.h"
#include "service/service_names.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr wchar_t kDriverServiceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor";
constexpr wchar_t kDependencies[] = L"RPCSS\0VelmoraActivityMonitor\0";

constexpr DWORD kStopPollMs = 1000;

// Null when it fails, with the last error set.
UniqueServiceHandle ConnectToManager() {
  return UniqueServiceHandle(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

UniqueServiceHandle OpenManager() {
  UniqueServiceHandle manager = ConnectToManager();
  if (!manager) LogMessage(kGeneralError, L"OpenSCManager failed: %hs\n", ErrorInfo().text());
  return manager;
}

UniqueServiceHandle OpenInstalledService(SC_HANDLE manager, const wchar_t* name, DWORD access) {
  UniqueServiceHandle service(::OpenServiceW(manager, name, access));
  if (!service) {
    LogMessage(kGeneralError, L"OpenService(%s) failed: %hs\n", name, ErrorInfo().text());
  }
  return service;
}

// The path of this program; empty when it cannot be had, with the last error set.
std::wstring ProgramPath() {
  std::wstring path(32768, L'\0');
  const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  path.resize(length < path.size() ? length : 0);
  return path;
}

void CreateOwnService(const std::wstring& command_line) {
  const UniqueServiceHandle manager = OpenManager();
  if (!manager) return;
  const UniqueServiceHandle service(
      ::CreateServiceW(manager.get(), kServiceName, kServiceDisplayName, SERVICE_ALL_ACCESS,
                       SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                       command_line.c_str(), nullptr, nullptr, kDependencies, nullptr, nullptr));
  if (service) {
    LogMessage(kGeneralInfo, L"%s installed.\n", kServiceDisplayName);
  } else {
    LogMessage(kGeneralError, L"CreateService failed: %hs\n", ErrorInfo().text());
  }
}

// Makes the driver start with the system. The last message is spelt with a capital I, unlike the
// two before it; whoever searches the log for them relies on that.
void MakeDriverBootStart() {
  UniqueRegistryKey key;
  LONG result = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDriverServiceKey, 0, KEY_SET_VALUE, key.put());
  if (result != ERROR_SUCCESS) {
    LogMessage(kGeneralError,
               L"VelmoraUpdateDriverinstallation: unable to open driver service key (%d)\n",
               result);
    return;
  }
  const DWORD start = SERVICE_BOOT_START;
  result = ::RegSetValueExW(key.get(), L"Start", 0, REG_DWORD,
                            reinterpret_cast<const BYTE*>(&start), sizeof start);
  if (result != ERROR_SUCCESS) {
    LogMessage(kGeneralError,
               L"VelmoraUpdateDriverinstallation: unable to update driver start value (%d)\n",
               result);
  }
  result = ::RegCloseKey(key.release());
  if (result != ERROR_SUCCESS) {
    LogMessage(kGeneralError,
               L"VelmoraUpdateDriverInstallation: unable to close driver service key (%d)\n",
               result);
  }
}

// Asks a running service to stop and waits until it is no longer stopping, however long that takes:
// a service deleted before it has ended would stay marked for deletion, its name taken.
void StopInstalledService(SC_HANDLE service) {
  SERVICE_STATUS status;
  if (!::ControlService(service, SERVICE_CONTROL_STOP, &status)) return;
  LogMessage(kGeneralInfo, L"Stopping %s\n", kServiceDisplayName);
  do {
    ::Sleep(kStopPollMs);
  } while (::QueryServiceStatus(service, &status) && status.dwCurrentState == SERVICE_STOP_PENDING);
  if (status.dwCurrentState == SERVICE_STOPPED) {
    LogMessage(kGeneralInfo, L"%s stopped\n", kServiceDisplayName);
  } else {
    LogMessage(kGeneralError, L"%s failed to stop\n", kServiceDisplayName);
  }
}

// Deletes the service; `name` is what a failure is logged with.
bool DeleteInstalledService(SC_HANDLE service, const wchar_t* name) {
  if (::DeleteService(service)) return true;
  LogMessage(kGeneralError, L"DeleteService(%s) failed: %hs\n", name, ErrorInfo().text());
  return false;
}

void RemoveOwnService() {
  const UniqueServiceHandle manager = OpenManager();
  if (!manager) return;
  const UniqueServiceHandle service =
      OpenInstalledService(manager.get(), kServiceName, SERVICE_ALL_ACCESS);
  if (!service) return;
  StopInstalledService(service.get());
  if (DeleteInstalledService(service.get(), kServiceDisplayName)) {
    LogMessage(kGeneralInfo, L"%s removed\n", kServiceDisplayName);
  }
}

}  // namespace

void InstallService() {
  const std::wstring program_path = ProgramPath();
  if (program_path.empty()) {
    LogMessage(kGeneralError, L"Unable to install %s: %hs\n", kServiceName, ErrorInfo().text());
    return;
  }
  CreateOwnService(ServiceCommandLine(program_path));
  MakeDriverBootStart();
}

void RemoveService() {
  RemoveOwnService();
  RemoveDriverService();
}

void RemoveDriverService() {
  const UniqueServiceHandle manager = OpenManager();
  if (!manager) return;
  const UniqueServiceHandle service =
      OpenInstalledService(manager.get(), kDriverServiceName, DELETE);
  if (service) DeleteInstalledService(service.get(), kDriverServiceName);
}

std::uint32_t VelmoraStartDriver() {
  const UniqueServiceHandle manager = ConnectToManager();
  if (!manager) {
    const ErrorInfo error;
    LogMessage(kGeneralError, L"VelmoraStartDriver: could not connect to SCM: %hs\n", error.text());
    return error.code();
  }
  const UniqueServiceHandle service(
      ::OpenServiceW(manager.get(), kDriverServiceName, SERVICE_ALL_ACCESS));
  if (!service) {
    const ErrorInfo error;
    LogMessage(kGeneralError, L"VelmoraStartDriver: OpenService failed: %hs\n", error.text());
    return error.code();
  }
  if (::StartServiceW(service.get(), 0, nullptr)) return ERROR_SUCCESS;
  const ErrorInfo error;
  if (error.code() == ERROR_SERVICE_ALREADY_RUNNING) return ERROR_SUCCESS;
  LogMessage(kGeneralError, L"VelmoraStartDriver: StartService failed: %hs\n", error.text());
  return error.code();
}

}  // namespace zel
