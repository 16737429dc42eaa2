// Owner of the wide strings that the RPC runtime allocates (UuidToStringW and others).
#pragma once

#include <rpc.h>
#include <windows.h>

#include "win32/unique_resource.h"

namespace zel {

struct RpcStringTraits {
  using Type = RPC_WSTR;
  static Type Null() noexcept { return nullptr; }
  static bool Valid(Type value) noexcept { return value != nullptr; }
  static void Close(Type value) noexcept { ::RpcStringFreeW(&value); }
};
using UniqueRpcString = UniqueResource<RpcStringTraits>;

}  // namespace zel
