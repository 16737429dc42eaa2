// Stands in for NdrClientCall2, whose Wine version knows no pipes. Test bench only.
#pragma once

#include <rpc.h>
#include <rpcndr.h>

namespace zel::sim {

using ClientCall = CLIENT_CALL_RETURN RPC_VAR_ENTRY(PMIDL_STUB_DESC, PFORMAT_STRING, ...);

// What procedures without pipes are left to.
extern ClientCall* system_client_call;

// Calls the procedure at `format` by the client's own tables, pipes included: alloc and push are
// called on the caller's thread while the answer arrives, as a stream over ncalrpc, and when it is
// there over what else there is. Raises what the engine raises, and passes on what alloc and push
// raise, after the call has been given up.
CLIENT_CALL_RETURN RPC_VAR_ENTRY PipingClientCall(PMIDL_STUB_DESC descriptor, PFORMAT_STRING format,
                                                  ...);

}  // namespace zel::sim
