// The service behind its RPC interface.
#pragma once

#include <memory>

#include "zelctl/request.h"
#include "zelctl/zel_server.h"

namespace zel::ctl {

// Never null. A server that cannot even be named answers every call with that RPC status.
[[nodiscard]] std::unique_ptr<ZelServer> ConnectRpcServer(const Request& request);

}  // namespace zel::ctl
