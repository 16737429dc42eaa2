// Owner of the wide strings that the RPC runtime allocates (UuidToStringW and others).
#pragma once

#include <rpc.h>
#include <windows.h>

#include "win32/unique_resource.h"

namespace zel {

inline void FreeRpcString(RPC_WSTR text) noexcept {
  ::RpcStringFreeW(&text);
}
using UniqueRpcString = UniqueResource<NullTraits<RPC_WSTR, FreeRpcString>>;

}  // namespace zel
