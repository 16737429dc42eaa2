// The CBT directory's path. Pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zel {

// The longest path that the buffers of 260 characters take, terminator not counted.
inline constexpr std::size_t kMaxCbtDirectory = 259;

// \\?\<install directory>\cbt; without an install directory \\?\C:\velmora, which has no "cbt".
// May be longer than kMaxCbtDirectory.
[[nodiscard]] std::wstring ComposeCbtDirectory(std::wstring_view install_directory);

}  // namespace zel
