// Where the files beside the log are: the configuration and the rolled logs. Pure.
#pragma once

#include <string>
#include <string_view>

namespace zel {

struct ConfigPaths {
  std::wstring directory;  // to be watched; empty when it cannot be derived
  std::wstring file;       // to be read; the log path itself when nothing can be derived
};

// For D:\agent\log\zelservice.log: D:\agent\config and D:\agent\config\plexor.conf. A log path
// with fewer than two backslashes derives nothing.
[[nodiscard]] ConfigPaths DeriveConfigPaths(std::wstring_view log_path);

// The name of the rolled log `number` (1 is the newest): "<log path>.<number>"; 0 is the log
// itself.
[[nodiscard]] std::wstring RolledLogPath(std::wstring_view log_path, int number);

}  // namespace zel
