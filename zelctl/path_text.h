// Paths as texts. Pure.
#pragma once

#include <string>

namespace zel::ctl {

// The service takes paths for the same that differ in the case of the letters A to Z alone.
[[nodiscard]] std::string FoldCase(std::string path);

}  // namespace zel::ctl
