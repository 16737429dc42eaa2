// Where the rolled logs are. Pure.
#pragma once

#include <string>
#include <string_view>

namespace zel {

// The name of the rolled log `number` (1 is the newest): "<log path>.<number>"; 0 is the log
// itself.
[[nodiscard]] inline std::wstring RolledLogPath(std::wstring_view log_path, int number) {
  std::wstring path(log_path);
  if (number != 0) path += L'.' + std::to_wstring(number);
  return path;
}

}  // namespace zel
