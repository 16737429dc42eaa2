#include "simulator/fltlib/security_callback.h"

#include <windows.h>

#include <atomic>

#include "simulator/fltlib/import_table.h"

namespace zel::sim {

namespace {

constexpr unsigned int kFlags = RPC_IF_ALLOW_CALLBACKS_WITH_NO_AUTH | RPC_IF_SEC_NO_CACHE;

decltype(&::RpcServerRegisterIf2) system_register = nullptr;
decltype(&::RpcServerUnregisterIf) system_unregister = nullptr;

// Of the program's one interface.
std::atomic<RPC_IF_CALLBACK_FN*> callback = nullptr;

RPC_STATUS RPC_ENTRY RefuseAll(RPC_IF_HANDLE, void*) {
  return RPC_S_ACCESS_DENIED;
}

RPC_STATUS RPC_ENTRY NotingRegister(RPC_IF_HANDLE interface_, UUID* type, RPC_MGR_EPV* vector,
                                    unsigned int flags, unsigned int max_calls,
                                    unsigned int max_size, RPC_IF_CALLBACK_FN* asked) {
  callback = flags == kFlags ? asked : RefuseAll;
  return system_register(interface_, type, vector, flags, max_calls, max_size, asked);
}

RPC_STATUS RPC_ENTRY NotingUnregister(RPC_IF_HANDLE interface_, UUID* type, unsigned int wait) {
  const RPC_STATUS status = system_unregister(interface_, type, wait);
  if (status == RPC_S_OK) callback = nullptr;
  return status;
}

}  // namespace

void InstallSecurityCallback() {
  ReplaceImport("RPCRT4.dll", "RpcServerRegisterIf2", &NotingRegister, system_register);
  ReplaceImport("RPCRT4.dll", "RpcServerUnregisterIf", &NotingUnregister, system_unregister);
}

void AskSecurityCallback(const RPC_MESSAGE& message) {
  RPC_IF_CALLBACK_FN* const asked = callback;
  if (asked != nullptr && asked(message.RpcInterfaceInformation, message.Handle) != RPC_S_OK) {
    ::RpcRaiseException(RPC_S_ACCESS_DENIED);
  }
}

}  // namespace zel::sim
