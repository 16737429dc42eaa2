#include "zelctl/path_text.h"

namespace zel::ctl {

std::string FoldCase(std::string path) {
  for (char& c : path) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return path;
}

}  // namespace zel::ctl
