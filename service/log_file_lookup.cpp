#include "service/log_file_lookup.h"

#include <string>

#include "common/identity.h"
#include "service/log_file_path.h"

namespace zel {

static_assert(kMaxLogFilePath == MAX_PATH - 1);

void GetLogFilePath(const wchar_t* program_path, wchar_t (&buffer)[MAX_PATH]) {
  wchar_t install_directory[MAX_PATH];
  GetInstallDirectory(install_directory);
  const std::wstring path = DeriveLogFilePath(install_directory, program_path);
  buffer[path.copy(buffer, kMaxLogFilePath)] = L'\0';
}

}  // namespace zel
