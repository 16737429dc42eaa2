// A whole run of the tool, from its arguments to its exit code. Pure.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zelctl/failure.h"
#include "zelctl/machine.h"
#include "zelctl/request.h"
#include "zelctl/terminal.h"
#include "zelctl/zel_server.h"

namespace zel::ctl {

// Makes the way to the server that a request names; calls find out whether it is there.
using ConnectServer = std::function<std::unique_ptr<ZelServer>(const Request& request)>;

// `arguments` in UTF-8, without the program's name.
[[nodiscard]] ExitCode RunTool(const std::vector<std::string>& arguments,
                               const ConnectServer& connect, Machine& machine, Terminal& terminal);

}  // namespace zel::ctl
