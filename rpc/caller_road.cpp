#include "rpc/caller_road.h"

#include <rpcdcep.h>

#include "win32/rpc_string.h"

namespace zel {

CallerRoad RoadOf(RPC_BINDING_HANDLE caller) {
  UniqueRpcString binding;
  UniqueRpcString sequence;
  UniqueRpcString address;
  if (::RpcBindingToStringBindingW(caller, binding.put()) != RPC_S_OK ||
      ::RpcStringBindingParseW(binding.get(), nullptr, sequence.put(), address.put(), nullptr,
                               nullptr) != RPC_S_OK) {
    return {};
  }
  return {reinterpret_cast<const wchar_t*>(sequence.get()),
          reinterpret_cast<const wchar_t*>(address.get())};
}

std::wstring ClientInHand() {
  // Of the thread: not every runtime's interpreter fills in the procedure's own parameter.
  const RPC_BINDING_HANDLE caller = ::I_RpcGetCurrentCallHandle();
  if (caller == nullptr) return {};
  const CallerRoad road = RoadOf(caller);
  unsigned long process_id = 0;
  if (road.protocol_sequence == L"ncalrpc" &&
      ::I_RpcBindingInqLocalClientPID(caller, &process_id) != RPC_S_OK) {
    process_id = 0;
  }
  return road.protocol_sequence + L":" + road.address + L" " + std::to_wstring(process_id);
}

}  // namespace zel
