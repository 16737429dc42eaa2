// The GUID's place in a volume name. Pure.
#pragma once

#include <string_view>

namespace zel {

// The characters between the braces of \\?\Volume{...}\, where a volume name has its GUID: up to
// 36 of them, fewer when the name is shorter. What they are is not checked.
[[nodiscard]] constexpr std::wstring_view GuidTextInVolumeName(std::wstring_view volume_name) {
  constexpr std::wstring_view kPrefix = LR"(\\?\Volume{)";
  constexpr std::size_t kGuidChars = 36;
  if (volume_name.size() < kPrefix.size()) return {};
  return volume_name.substr(kPrefix.size(), kGuidChars);
}

}  // namespace zel
