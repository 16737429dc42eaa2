#include "common/cbt_path.h"

namespace zel {

std::wstring ComposeCbtDirectory(std::wstring_view install_directory) {
  if (install_directory.empty()) return LR"(\\?\C:\velmora)";
  std::wstring directory = LR"(\\?\)";
  return directory.append(install_directory).append(LR"(\cbt)");
}

}  // namespace zel
