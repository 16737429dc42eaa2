// Which server a client calls, and as whom.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <cstdint>
#include <string>

#include "win32/unique_resource.h"

namespace zel {

inline void FreeBinding(RPC_BINDING_HANDLE binding) noexcept {
  ::RpcBindingFree(&binding);
}
using UniqueBinding = UniqueResource<NullTraits<RPC_BINDING_HANDLE, FreeBinding>>;

struct ServerAddress {
  std::wstring protocol_sequence = L"ncalrpc";  // or ncacn_ip_tcp, ncacn_np, ncacn_http
  std::wstring server;                          // empty: this machine
  std::wstring endpoint;                        // empty: the server's endpoint mapper is asked
};

// Names a server; the first call connects to it. Answers an RPC status, 0 for success.
[[nodiscard]] std::uint32_t MakeBinding(const ServerAddress& address, UniqueBinding& binding);

// Has every call through the binding tell who makes it, by NTLM, which is what the service offers,
// signed and encrypted. The server may identify the caller and not act in its name. Answers an RPC
// status, 0 for success; whether the server takes it shows at the first call.
[[nodiscard]] std::uint32_t Authenticate(const UniqueBinding& binding);

}  // namespace zel
