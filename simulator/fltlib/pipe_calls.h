// Stands in for NdrServerCall2, whose Wine version knows no pipes. Test bench only.
#pragma once

#include <rpc.h>

namespace zel::sim {

using ServerCall = void RPC_ENTRY(RPC_MESSAGE*);

// What procedures without pipes are left to.
extern ServerCall* system_server_call;

// Calls the procedure of `message` by the server's own tables, pipes included. Raises what the
// engine raises: a description that is not covered, a request that is too short, a pipe that the
// procedure has not ended.
void RPC_ENTRY PipingServerCall(RPC_MESSAGE* message);

}  // namespace zel::sim
