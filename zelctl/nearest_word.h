// What somebody may have meant by a word that is none of those that there are. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel::ctl {

// The word of `known` that begins with `word`, or that differs from it by the fewest letters,
// added, left out or exchanged; empty where none comes near.
[[nodiscard]] std::string NearestWord(std::string_view word, const std::vector<std::string>& known);

}  // namespace zel::ctl
