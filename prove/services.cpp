#include "prove/services.h"

#include "prove/steps.h"

namespace zel::prove {

namespace {

constexpr DWORD kGentleStopMs = 30'000;

void RequireCall(BOOL done, const char* call, const wchar_t* name) {
  const DWORD error = ::GetLastError();
  Require(done,
          std::string(call) + " of " + ToUtf8(name) + " failed: error " + std::to_string(error));
}

UniqueServiceHandle OpenManager(DWORD access) {
  UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, access));
  RequireCall(static_cast<bool>(manager), "OpenSCManager", L"this machine");
  return manager;
}

UniqueServiceHandle Find(const wchar_t* name, DWORD access) {
  const UniqueServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  return UniqueServiceHandle(::OpenServiceW(manager.get(), name, access));
}

UniqueServiceHandle Open(const wchar_t* name, DWORD access) {
  UniqueServiceHandle service = Find(name, access);
  RequireCall(static_cast<bool>(service), "OpenService", name);
  return service;
}

SERVICE_STATUS_PROCESS StatusOf(const wchar_t* name) {
  const UniqueServiceHandle service = Open(name, SERVICE_QUERY_STATUS);
  SERVICE_STATUS_PROCESS status = {};
  DWORD size = 0;
  RequireCall(::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                     reinterpret_cast<BYTE*>(&status), sizeof status, &size),
              "QueryServiceStatusEx", name);
  return status;
}

bool HasEnded(const UniqueResource<KernelObjectTraits>& process) {
  return !process || ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
}

// Null when there is no such process any more.
UniqueResource<KernelObjectTraits> OpenProcessOf(const wchar_t* name, DWORD access) {
  const DWORD id = ProcessOf(name);
  return UniqueResource<KernelObjectTraits>(id != 0 ? ::OpenProcess(access, FALSE, id) : nullptr);
}

// An administrator may not end a process of the system's account without it.
void EnableDebugPrivilege() {
  UniqueToken token;
  TOKEN_PRIVILEGES privileges = {};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()) &&
      ::LookupPrivilegeValueW(nullptr, SE_DEBUG_NAME, &privileges.Privileges[0].Luid)) {
    ::AdjustTokenPrivileges(token.get(), FALSE, &privileges, 0, nullptr, nullptr);
  }
}

std::vector<std::wstring> WordsOf(const wchar_t* list) {
  std::vector<std::wstring> words;
  for (; list != nullptr && *list != L'\0'; list += words.back().size() + 1) {
    words.emplace_back(list);
  }
  return words;
}

}  // namespace

bool ServiceExists(const wchar_t* name) {
  return static_cast<bool>(Find(name, SERVICE_QUERY_STATUS));
}

ServiceSetup SetupOf(const wchar_t* name) {
  const UniqueServiceHandle service = Open(name, SERVICE_QUERY_CONFIG);
  alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];  // the most that the system gives
  DWORD size = 0;
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
  RequireCall(::QueryServiceConfigW(service.get(), config, sizeof buffer, &size),
              "QueryServiceConfig", name);
  return {config->lpBinaryPathName, config->lpDisplayName, config->lpServiceStartName,
          config->dwStartType, WordsOf(config->lpDependencies)};
}

DWORD StateOf(const wchar_t* name) {
  return StatusOf(name).dwCurrentState;
}

DWORD ProcessOf(const wchar_t* name) {
  return StatusOf(name).dwProcessId;
}

void CreateDemandService(const wchar_t* name, const std::filesystem::path& program) {
  const UniqueServiceHandle manager = OpenManager(SC_MANAGER_CREATE_SERVICE);
  const UniqueServiceHandle service(
      ::CreateServiceW(manager.get(), name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, Quoted(program).c_str(), nullptr,
                       nullptr, nullptr, nullptr, nullptr));
  RequireCall(static_cast<bool>(service), "CreateService", name);
}

void StartAndAwait(const Kit& kit, const wchar_t* name, DWORD former_process) {
  const UniqueServiceHandle service = Open(name, SERVICE_START);
  DWORD error = ERROR_SUCCESS;
  kit.Await("StartService is taken", [&] {
    error = ::StartServiceW(service.get(), 0, nullptr) ? ERROR_SUCCESS : ::GetLastError();
    // The manager has not noticed yet that the process before it has ended.
    return error != ERROR_SERVICE_ALREADY_RUNNING || former_process == 0;
  });
  Require(error == ERROR_SUCCESS, "StartService failed: error " + std::to_string(error));
  kit.Await("the service runs", [&] {
    const SERVICE_STATUS_PROCESS status = StatusOf(name);
    Require(status.dwCurrentState != SERVICE_STOPPED,
            "the service stopped by itself with " + std::to_string(status.dwWin32ExitCode));
    return status.dwCurrentState == SERVICE_RUNNING && status.dwProcessId != former_process;
  });
}

void StopAndAwait(const Kit& kit, const wchar_t* name, DWORD limit_ms) {
  const UniqueServiceHandle service = Open(name, SERVICE_STOP | SERVICE_QUERY_STATUS);
  const UniqueResource<KernelObjectTraits> process = OpenProcessOf(name, SYNCHRONIZE);
  SERVICE_STATUS status = {};
  RequireCall(::ControlService(service.get(), SERVICE_CONTROL_STOP, &status), "the stop", name);
  kit.Await(
      "the service has stopped", [&] { return StateOf(name) == SERVICE_STOPPED; }, limit_ms);
  kit.Await(
      "the service's process has ended", [&] { return HasEnded(process); }, limit_ms);
}

void KillProcessOf(const Kit& kit, const wchar_t* name) {
  EnableDebugPrivilege();
  const UniqueResource<KernelObjectTraits> process =
      OpenProcessOf(name, PROCESS_TERMINATE | SYNCHRONIZE);
  RequireCall(process && ::TerminateProcess(process.get(), 1), "TerminateProcess", name);
  kit.Await("the killed process has ended", [&] { return HasEnded(process); });
}

void RemoveService(const Kit& kit, const wchar_t* name) {
  try {
    if (StateOf(name) != SERVICE_STOPPED) StopAndAwait(kit, name, kGentleStopMs);
  } catch (const StepFailure&) {
    EnableDebugPrivilege();
    const UniqueResource<KernelObjectTraits> process =
        OpenProcessOf(name, PROCESS_TERMINATE | SYNCHRONIZE);
    if (process) ::TerminateProcess(process.get(), 1);
  }
  if (const UniqueServiceHandle service = Find(name, DELETE)) {
    const BOOL deleted = ::DeleteService(service.get());
    RequireCall(deleted || ::GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE, "DeleteService",
                name);
  }
  // A deleted service stands until its process has ended and every handle to it is closed.
  kit.Await("the deleted service is gone", [&] { return !ServiceExists(name); });
}

}  // namespace zel::prove
