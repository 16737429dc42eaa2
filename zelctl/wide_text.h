// Between the system's UTF-16 and the tool's UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace zel::ctl {

// Half a surrogate pair, and bytes that are no UTF-8, become U+FFFD.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);
[[nodiscard]] std::wstring ToWide(std::string_view text);

}  // namespace zel::ctl
