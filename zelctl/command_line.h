// The command line's grammar, and the help that belongs to it. Pure.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zelctl/failure.h"
#include "zelctl/request.h"

namespace zel::ctl {

// `arguments` in UTF-8, without the program's name. None for success; a failure of kUsage leaves
// `request` with nothing but `json` that counts.
[[nodiscard]] MaybeFailure ParseCommandLine(const std::vector<std::string>& arguments,
                                            Request& request);

// The help of a command or another topic; of the program for an empty name. None for an unknown
// one.
[[nodiscard]] std::optional<std::string> HelpText(const std::string& topic);

// The names that HelpText knows, commands first.
[[nodiscard]] std::vector<std::string> HelpTopics();

}  // namespace zel::ctl
