// What ErrorInfo computes: the Win32 code of a value, the text of a code. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zel {

// The room for an error text, terminator included; what does not fit is cut off.
inline constexpr std::size_t kErrorTextSize = 1024;

// `value` as a Win32 code. A value whose top two bits are 10 or 11 (an NTSTATUS of warning or
// error severity) goes through `to_win32`, a function pointer such as RtlNtStatusToDosError's;
// it stays as it is when the pointer is null or the answer says that there is no such code.
template <class StatusConverter>
[[nodiscard]] std::uint32_t ToWin32Code(std::uint32_t value, StatusConverter* to_win32) noexcept {
  constexpr std::uint32_t kNoMapping = 317;  // ERROR_MR_MID_NOT_FOUND
  if (value >> 30 < 2 || to_win32 == nullptr) return value;
  const auto code = static_cast<std::uint32_t>(to_win32(value));
  return code == kNoMapping ? value : code;
}

// `system_text` (empty when the system has none) without the white space and full stops at its
// end, or "Unknown error code"; then " [name]", or " [0x%08x]" for a code that is negative as a
// signed number. At most kErrorTextSize - 1 characters.
[[nodiscard]] std::string AssembleErrorText(std::string_view system_text, std::uint32_t code,
                                            std::string_view name);

}  // namespace zel
