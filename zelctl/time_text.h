// Points in time as people write and read them. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "files/types.h"

namespace zel::ctl {

// "now", a FILETIME in digits, or ISO 8601 with a zone: 2026-01-31T23:59:59Z, with up to seven
// digits of a second behind a dot, and +01:00 or -05:30 for the Z. None for anything else.
[[nodiscard]] std::optional<FileTime> ParseTime(std::string_view text, FileTime now);

// ISO 8601 in UTC with all seven digits: 2026-01-31T23:59:59.0000000Z. Behind the year 9999 the
// digits of the FILETIME.
[[nodiscard]] std::string FormatTime(FileTime time);

}  // namespace zel::ctl
