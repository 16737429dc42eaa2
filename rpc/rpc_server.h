// The RPC server's endpoints: the last step of the service's start and its life until it is
// stopped.
#pragma once

namespace zel {

// Registers the interface on every protocol sequence that the machine has, reports the service as
// running (common/service_status.h) and serves calls until StopRpcServer; then takes
// the endpoints back. The thread that runs the service's start calls it, once.
// Errors: reported as SERVICE_STOPPED with the RPC status as the exit code, except that no protocol
// sequence at all is only logged. It returns in every case.
void RunRpcServer();

// Ends listening, so that RunRpcServer returns; one that has not begun to listen never does. Any
// thread, any number of times.
void StopRpcServer();

}  // namespace zel
