// How a client's calls reach the RPC runtime, and how their exceptions come back as values.
#pragma once

#include <rpc.h>
#include <rpcndr.h>
#include <windows.h>

#include <cstdint>
#include <span>

#include "client/pipe_response.h"
#include "rpc/zel_ndr_format.h"
#include "win32/rpc_exception.h"

namespace zel {

extern const MIDL_STUB_DESC kZelClientStubs;

// Calls an operation without a pipe. `arguments` are those of rpc/zel.idl behind the binding
// handle. Returns the RPC status; `code` is the operation's.
template <class... Arguments>
[[nodiscard]] std::uint32_t CallOperation(Operation operation, RPC_BINDING_HANDLE binding,
                                          std::uint32_t& code, Arguments... arguments) {
  return CatchRpcException([&] {
    const CLIENT_CALL_RETURN result =
        ::NdrClientCall2(&kZelClientStubs, ProcedureFormat(operation), binding, arguments...);
    code = static_cast<std::uint32_t>(result.Simple);
  });
}

// Calls an operation with a pipe as one that answers with plain data. `request` holds the
// marshalled parameters. A response that cannot be read is RPC_X_BAD_STUB_DATA.
[[nodiscard]] std::uint32_t CallPipeOperation(Operation operation, RPC_BINDING_HANDLE binding,
                                              std::span<const std::byte> request,
                                              const ByteSink& sink, std::uint32_t& code);

}  // namespace zel
