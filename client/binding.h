// Which server a client calls.
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

}  // namespace zel
