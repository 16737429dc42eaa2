#include "driver/open_file_for_driver.h"

#include <windows.h>

#include "errors/error_info.h"
#include "files/path_check.h"
#include "logging/log_message.h"
#include "win32/handles.h"

namespace zel {

namespace {

std::uint32_t SendControlCode(const UniqueFile& file, const std::wstring& path,
                              std::uint32_t control_code) {
  DWORD returned = 0;
  if (::DeviceIoControl(file.get(), control_code, nullptr, 0, nullptr, 0, &returned, nullptr)) {
    return ERROR_SUCCESS;
  }
  const ErrorInfo error;
  LogMessage(kDriverCommError, L"Failed to send IOCTL to %s: %hs\n", path.c_str(), error.text());
  return error.code();
}

}  // namespace

std::uint32_t OpenFileForDriver(const std::wstring& path, std::uint32_t control_code) {
  if (CheckPath(path) == PathFault::kNotLocal) return ERROR_PATH_NOT_FOUND;
  const UniqueFile file(::CreateFileW(path.c_str(), SYNCHRONIZE | FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return ::GetLastError();
  return control_code == 0 ? ERROR_SUCCESS : SendControlCode(file, path, control_code);
}

}  // namespace zel
