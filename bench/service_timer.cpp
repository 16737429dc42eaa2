// The part of service_bench.py that a script cannot do: asking the service control manager every
// millisecond, and listing directories and opening files through the Windows API.
//
//   service_timer start|stop SERVICE     until the service runs or has stopped
//   service_timer open DIRECTORY         each file in and below it, for its index
//
// Prints the milliseconds that it took, or ends with an error's number.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

#include "files/directory_listing.h"
#include "files/file_identity.h"

namespace {

constexpr auto kLimit = std::chrono::minutes(3);

DWORD StateOf(SC_HANDLE service) {
  SERVICE_STATUS status = {};
  return ::QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

DWORD ChangeState(bool start, const wchar_t* name) {
  // Both handles end with the process.
  const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  const SC_HANDLE service =
      ::OpenServiceW(manager, name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
  SERVICE_STATUS status = {};
  if (!(start ? ::StartServiceW(service, 0, nullptr)
              : ::ControlService(service, SERVICE_CONTROL_STOP, &status))) {
    return ::GetLastError();
  }
  const auto end = std::chrono::steady_clock::now() + kLimit;
  while (StateOf(service) != (start ? SERVICE_RUNNING : SERVICE_STOPPED)) {
    if (std::chrono::steady_clock::now() > end) return ERROR_TIMEOUT;
    ::Sleep(1);
  }
  return ERROR_SUCCESS;
}

DWORD OpenFiles(const std::wstring& directory) {
  zel::DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::wstring path = directory + L'\\' + entry->cFileName;
    zel::FileId id;
    const DWORD error = (entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                            ? OpenFiles(path)
                            : zel::GetFileIdAndSize(path.c_str(), &id, nullptr);
    if (error != ERROR_SUCCESS) return error;
  }
  return ERROR_SUCCESS;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 3) return ERROR_BAD_ARGUMENTS;
  const std::wstring_view verb = argv[1];
  const auto begin = std::chrono::steady_clock::now();
  const DWORD error = verb == L"open" ? OpenFiles(argv[2]) : ChangeState(verb == L"start", argv[2]);
  if (error != ERROR_SUCCESS) return static_cast<int>(error);
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
  std::printf("%.0f\n", taken.count());
  return 0;
}
