#include "service/backup_privilege.h"

#include <windows.h>

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "win32/handles.h"

namespace zel {

namespace {

std::uint32_t EnablePrivilege(HANDLE token) {
  TOKEN_PRIVILEGES privileges = {};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (!::LookupPrivilegeValueW(nullptr, SE_BACKUP_NAME, &privileges.Privileges[0].Luid)) {
    const ErrorInfo error;
    // Without a line end, as those who search logs for it know it.
    LogMessage(kGeneralError, L"LookupPrivilegeValue(%s) failed: %hs", SE_BACKUP_NAME,
               error.text());
    return error.code();
  }

  // Room for a previous state of every privilege that there is.
  alignas(TOKEN_PRIVILEGES) std::byte previous[2048];
  DWORD previous_size = 0;
  if (!::AdjustTokenPrivileges(token, FALSE, &privileges, sizeof previous,
                               reinterpret_cast<TOKEN_PRIVILEGES*>(previous), &previous_size)) {
    const ErrorInfo error;
    LogMessage(kGeneralError, L"AdjustTokenPrivileges failed: %hs\n", error.text());
    return error.code();
  }
  if (::GetLastError() != ERROR_NOT_ALL_ASSIGNED) return ERROR_SUCCESS;
  LogMessage(kGeneralError, L"Unable to acquire %s\n", SE_BACKUP_NAME);
  return ERROR_NOT_ALL_ASSIGNED;
}

}  // namespace

std::uint32_t AcquireBackupPrivilege() {
  UniqueToken token;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                          token.put())) {
    const ErrorInfo error;
    LogMessage(kGeneralError, L"OpenProcessToken failed: %hs\n", error.text());
    return error.code();
  }
  return EnablePrivilege(token.get());
}

}  // namespace zel
