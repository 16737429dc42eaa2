// The security callback of an interface, which Wine's RpcServerRegisterIf2 takes and never calls.
// Test bench only.
#pragma once

#include <rpc.h>

namespace zel::sim {

// Notes the callback of the program's interface from now on. To be called while the loader lets no
// other thread run.
void InstallSecurityCallback();

// Asks the callback of the interface that `message` calls, as the runtime does before each call of
// one that is registered with RPC_IF_ALLOW_CALLBACKS_WITH_NO_AUTH and RPC_IF_SEC_NO_CACHE; raises
// RPC_S_ACCESS_DENIED when it refuses the caller. Nothing for an interface without one. With other
// flags the runtime does more than this, and every call is refused.
void AskSecurityCallback(const RPC_MESSAGE& message);

}  // namespace zel::sim
