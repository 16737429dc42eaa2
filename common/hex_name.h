// Numbers as names in the CBT directory: hexadecimal digits. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/types.h"

namespace zel {

// The longest name of one number.
inline constexpr std::size_t kMaxHexDigits = 16;

// `digits` lower-case digits, filled with zeros; what does not fit is left out in front.
[[nodiscard]] std::wstring FormatHexName(std::uint64_t value, std::size_t digits);

// The number of up to kMaxHexDigits characters as wcstoul reads it: white space and a sign go
// before the digits, and anything may follow them. A negative one wraps in Number as it would
// there. None for 0 and for all ones. For 32- and 64-bit numbers.
template <class Number>
[[nodiscard]] std::optional<Number> ParseHexName(std::wstring_view name);

// A tracked file's directory is called by its file id: 16 lower-case hex digits.
[[nodiscard]] std::wstring FormatFileIdDirectory(FileId file_id);

// None unless the name has exactly 16 characters and reads as a number other than 0 and all ones.
[[nodiscard]] std::optional<FileId> ParseFileIdDirectory(std::wstring_view name);

}  // namespace zel
