// Where the log file is. Pure; service/log_file_lookup.h reads the install directory for it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zel {

// The longest path that a buffer of 260 characters holds.
inline constexpr std::size_t kMaxLogFilePath = 259;

// With an install directory: "<install directory>\log\zelservice.log", the directory taken as it
// is stored. Without one (empty): the program path with ".log" in place of everything from its
// first dot on, or appended when it has no dot; the bare name "zelservice.log" when that would not
// fit. Never longer than kMaxLogFilePath.
[[nodiscard]] std::wstring DeriveLogFilePath(std::wstring_view install_directory,
                                             std::wstring_view program_path);

}  // namespace zel
