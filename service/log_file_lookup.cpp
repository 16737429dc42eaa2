#include <string>

#include "files/install_directory.h"
#include "files/layout.h"
#include "service/log_file_path.h"

namespace zel {

void GetLogFilePath(const wchar_t* program_path, wchar_t (&buffer)[kMaxPathLength + 1]) {
  wchar_t install_directory[kMaxPathLength + 1];
  GetInstallDirectory(install_directory);
  const std::wstring path = DeriveLogFilePath(install_directory, program_path);
  buffer[path.copy(buffer, kMaxPathLength)] = L'\0';
}

}  // namespace zel
