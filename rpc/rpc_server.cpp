#include "rpc/rpc_server.h"

#include <rpc.h>
#include <windows.h>

#include "common/service_status.h"
#include "logging/log_message.h"
#include "rpc/zel_stub_tables.h"
#include "win32/critical_section.h"

namespace zel {

namespace {

constexpr std::uint32_t kStepHintMs = 3000;
constexpr unsigned int kMaxQueuedCalls = 3;  // for a protocol sequence
constexpr unsigned int kMinCallThreads = 3;
constexpr unsigned int kMaxConcurrentCalls = 1234;

// Held while listening begins and ends: a stop is neither lost before the begin nor runs into it.
CriticalSection listenLock;
bool stopRequested ZEL_GUARDED_BY(listenLock) = false;

RPC_IF_HANDLE Interface() {
  return const_cast<RPC_SERVER_INTERFACE*>(&kZelServerInterface);
}

// Announces the next step. False when the service is not to go on.
bool ReportStep() {
  return ReportServiceStatus(SERVICE_START_PENDING, NO_ERROR, kStepHintMs);
}

// True for success; otherwise the service has been reported as stopped with `status`.
bool Succeeded(RPC_STATUS status) {
  if (status == RPC_S_OK) return true;
  ReportServiceStatus(SERVICE_STOPPED, static_cast<std::uint32_t>(status), 0);
  return false;
}

// False, and logged, when no protocol sequence at all can be used.
bool UseProtocolSequences() {
  bool any = false;
  for (const wchar_t* sequence : {L"ncalrpc", L"ncacn_ip_tcp", L"ncacn_np", L"ncacn_http"}) {
    wchar_t name[16];
    ::wcscpy_s(name, sequence);
    any |= ::RpcServerUseProtseqW(reinterpret_cast<RPC_WSTR>(name), kMaxQueuedCalls, nullptr) ==
           RPC_S_OK;
  }
  if (!any) LogMessage(kGeneralError, L"no protocols registered");
  return any;
}

// False when a stop has come already: there is then nothing to wait for.
bool BeginListening(RPC_STATUS& status) {
  const LockGuard guard(listenLock);
  if (stopRequested) return false;
  status = ::RpcServerListen(kMinCallThreads, kMaxConcurrentCalls, TRUE);
  return true;
}

// Serves calls until listening is stopped. False when a step failed or the service is not to go on.
bool Serve() {
  if (!ReportStep() ||
      !Succeeded(::RpcServerRegisterAuthInfoW(nullptr, RPC_C_AUTHN_WINNT, nullptr, nullptr))) {
    return false;
  }
  if (!ReportStep()) return false;
  RPC_STATUS status = RPC_S_OK;
  if (!BeginListening(status)) return true;
  if (!Succeeded(status)) return false;
  return ReportServiceStatus(SERVICE_RUNNING, NO_ERROR, 0) &&
         Succeeded(::RpcMgmtWaitServerListen());
}

}  // namespace

void RunRpcServer() {
  if (!ReportStep() || !UseProtocolSequences()) return;
  if (!ReportStep() || !Succeeded(::RpcServerRegisterIf(Interface(), nullptr, nullptr))) return;
  // The bindings stay until the process ends unless everything has gone well.
  RPC_BINDING_VECTOR* bindings = nullptr;
  if (!ReportStep() || !Succeeded(::RpcServerInqBindings(&bindings)) ||
      !Succeeded(::RpcEpRegisterW(Interface(), bindings, nullptr, nullptr))) {
    return;
  }
  if (!Serve() || !Succeeded(::RpcEpUnregister(Interface(), bindings, nullptr))) return;
  ::RpcBindingVectorFree(&bindings);
}

void StopRpcServer() {
  const LockGuard guard(listenLock);
  stopRequested = true;
  ::RpcMgmtStopServerListening(nullptr);  // an error when nobody listens, which is as well
}

}  // namespace zel
