// The server's side of rpc/zel.idl as the RPC runtime wants it registered.
#pragma once

#include <rpc.h>
#include <windows.h>

namespace zel {

// For RpcServerRegisterIf and RpcEpRegister, cast to RPC_IF_HANDLE. Lives as long as the process.
extern const RPC_SERVER_INTERFACE kZelServerInterface;

}  // namespace zel
