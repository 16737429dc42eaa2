// How a client's calls reach the RPC runtime, and how their exceptions come back as values.
#pragma once

#include <rpc.h>
#include <rpcndr.h>
#include <windows.h>

#include <cstdint>

#include "rpc/zel_ndr_format.h"
#include "win32/rpc_exception.h"

namespace zel {

extern const MIDL_STUB_DESC kZelClientStubs;

// Calls an operation. `arguments` are those of rpc/zel.idl after the binding handle, a pipe by its
// wire::BytePipe*. Returns the RPC status; `code` is the operation's.
template <class... Arguments>
[[nodiscard]] std::uint32_t CallOperation(Operation operation, RPC_BINDING_HANDLE binding,
                                          std::uint32_t& code, Arguments... arguments) {
  return CatchRpcException([&] {
    const CLIENT_CALL_RETURN result =
        ::NdrClientCall2(&kZelClientStubs, ProcedureFormat(operation), binding, arguments...);
    code = static_cast<std::uint32_t>(result.Simple);
  });
}

}  // namespace zel
