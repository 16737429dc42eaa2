// The RPC server's endpoints: the last step of the service's start and its life until it is
// stopped.
#pragma once

#include <cstdint>

namespace zel {

// What RunRpcServer reports of itself.
enum class RpcServerStep {
  kStarting,   // the next step of its start follows
  kListening,  // calls are served
  kFailed,     // it ends with an RPC status
};

// Called with RPC_S_OK or the status that the server failed with. Returns whether to go on.
using RpcServerReport = bool (*)(RpcServerStep step, std::uint32_t status);

// Registers the interface on every protocol sequence that the machine has and serves calls until
// StopRpcServer; then takes the endpoints back. Calls `report` before each step, when it listens
// and when a step has failed. The thread that runs the service's start calls it, once. Errors: the
// RPC status of the step that failed, logged and reported; RPC_S_NO_PROTSEQS without any protocol
// sequence is only logged. 0 otherwise, also for a report that said not to go on.
std::uint32_t RunRpcServer(RpcServerReport report);

// Ends listening, so that RunRpcServer returns. Once StopRequested is set (win32/stop_requested.h)
// a server that does not listen yet never does. Any thread, any number of times.
void StopRpcServer();

}  // namespace zel
