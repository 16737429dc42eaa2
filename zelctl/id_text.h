// Ids and GUIDs as people write and read them. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "files/types.h"

namespace zel::ctl {

// One to sixteen hexadecimal digits, with or without "0x" before them.
[[nodiscard]] std::optional<std::uint64_t> ParseId(std::string_view text);

// 0x and sixteen lower-case digits.
[[nodiscard]] std::string FormatId(std::uint64_t id);

// 36 lower-case characters without braces.
[[nodiscard]] std::string FormatGuid(const VolumeGuid& guid);
// None for what FormatGuid does not write.
[[nodiscard]] std::optional<VolumeGuid> ParseGuid(std::string_view text);

}  // namespace zel::ctl
