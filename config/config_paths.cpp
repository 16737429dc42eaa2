#include "config/config_paths.h"

namespace zel {

ConfigPaths DeriveConfigPaths(std::wstring_view log_path) {
  ConfigPaths paths{.directory = {}, .file = std::wstring(log_path)};
  const std::size_t file_separator = log_path.rfind(L'\\');
  if (file_separator == std::wstring_view::npos) return paths;
  const std::wstring_view log_directory = log_path.substr(0, file_separator);
  const std::size_t directory_separator = log_directory.rfind(L'\\');
  if (directory_separator == std::wstring_view::npos) return paths;
  paths.directory = std::wstring(log_directory.substr(0, directory_separator)) + L"\\config";
  paths.file = paths.directory + L"\\plexor.conf";
  return paths;
}

}  // namespace zel
