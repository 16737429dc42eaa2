// Names of bitmap files. Not here: those of their directories (common/hex_name.h). Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/types.h"

namespace zel {

// A bitmap file is called by its creation time (16 hex digits) and its block size (8 hex digits).
inline constexpr std::size_t kBitmapNameLength = 24;

[[nodiscard]] std::wstring FormatBitmapName(FileTime creation_time, std::uint32_t block_size);

// The text behind the last backslash; the whole path without one.
[[nodiscard]] std::wstring_view LastPathComponent(std::wstring_view path);

// Parse one half of a name of kBitmapNameLength characters as wcstoul would. None for 0 and for
// all ones.
[[nodiscard]] std::optional<FileTime> ParseNameCreationTime(std::wstring_view name);
[[nodiscard]] std::optional<std::uint32_t> ParseNameBlockSize(std::wstring_view name);

}  // namespace zel
