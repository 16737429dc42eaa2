// An RPC interface of one procedure without anything: what the runtime itself costs.
#pragma once

#include <rpc.h>
#include <rpcndr.h>
#include <windows.h>

#include <cstdint>

namespace zel::bench {

// Registers the interface; it is served on the endpoints that the process has.
bool RegisterBareInterface();

// One call of its procedure: 4 bytes go over, `answer_bytes` come back. Answers the RPC status.
std::uint32_t CallBare(RPC_BINDING_HANDLE binding, std::uint32_t answer_bytes = 4);

}  // namespace zel::bench
