// What a command line asks for, or what is wrong with it. Pure.
#pragma once

#include <string>
#include <vector>

#include "zelctl/failure.h"
#include "zelctl/request.h"

namespace zel::ctl {

// `arguments` in UTF-8, without the program's name. None for success; a failure of kUsage leaves
// `request` with nothing but `json` that counts.
[[nodiscard]] MaybeFailure ParseCommandLine(const std::vector<std::string>& arguments,
                                            Request& request);

}  // namespace zel::ctl
