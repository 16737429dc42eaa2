// Where this process's RPC server listens.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <map>
#include <string>

#include "win32/rpc_string.h"

namespace zel::test {

// The endpoint of each protocol sequence in use.
inline std::map<std::wstring, std::wstring> ServerEndpoints() {
  std::map<std::wstring, std::wstring> endpoints;
  RPC_BINDING_VECTOR* bindings = nullptr;
  if (::RpcServerInqBindings(&bindings) != RPC_S_OK) return endpoints;
  for (unsigned long i = 0; i < bindings->Count; ++i) {
    UniqueRpcString text;
    UniqueRpcString sequence;
    UniqueRpcString endpoint;
    if (::RpcBindingToStringBindingW(bindings->BindingH[i], text.put()) == RPC_S_OK &&
        ::RpcStringBindingParseW(text.get(), nullptr, sequence.put(), nullptr, endpoint.put(),
                                 nullptr) == RPC_S_OK) {
      endpoints[reinterpret_cast<const wchar_t*>(sequence.get())] =
          reinterpret_cast<const wchar_t*>(endpoint.get());
    }
  }
  ::RpcBindingVectorFree(&bindings);
  return endpoints;
}

}  // namespace zel::test
