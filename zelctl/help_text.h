// What zelctl help prints: usage and options as the grammar has them, and the manual's words. Pure.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zel::ctl {

// The help of a command or another topic; of the program for an empty name. None for an unknown
// one.
[[nodiscard]] std::optional<std::string> HelpText(const std::string& topic);

// The names that HelpText knows, commands first.
[[nodiscard]] std::vector<std::string> HelpTopics();

}  // namespace zel::ctl
