// Where the configuration of a log is. Pure.
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

}  // namespace zel
