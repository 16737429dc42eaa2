#include "rpc/rpc_server.h"

#include <rpc.h>
#include <windows.h>

#include "logging/log_message.h"
#include "rpc/procedures.h"
#include "win32/critical_section.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

constexpr unsigned int kMaxQueuedCalls = 3;  // for a protocol sequence
constexpr unsigned int kMinCallThreads = 3;
constexpr unsigned int kMaxConcurrentCalls = 1234;

// Held while listening starts and ends: a stop is neither lost before the start nor runs into it.
CriticalSection listenLock;

RPC_IF_HANDLE Interface() {
  return const_cast<RPC_SERVER_INTERFACE*>(&kZelServerInterface);
}

// Announces the steps of the server and their failures.
class Reporter {
 public:
  explicit Reporter(RpcServerReport report) : report_(report) {}

  // Announces the next step. False when the server is not to go on.
  [[nodiscard]] bool Starting() const { return report_(RpcServerStep::kStarting, RPC_S_OK); }
  [[nodiscard]] bool Listening() const { return report_(RpcServerStep::kListening, RPC_S_OK); }

  // True for success; otherwise the failure has been reported.
  [[nodiscard]] bool Succeeded(RPC_STATUS status) const {
    if (status == RPC_S_OK) return true;
    report_(RpcServerStep::kFailed, static_cast<std::uint32_t>(status));
    return false;
  }

 private:
  RpcServerReport report_;
};

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
bool StartListening(RPC_STATUS& status) ZEL_EXCLUDES(listenLock) {
  const LockGuard guard(listenLock);
  if (StopRequested) return false;
  status = ::RpcServerListen(kMinCallThreads, kMaxConcurrentCalls, TRUE);
  return true;
}

// Serves calls until listening is stopped. False when a step failed or the service is not to go on.
bool Serve(const Reporter& reporter) {
  if (!reporter.Starting() || !reporter.Succeeded(::RpcServerRegisterAuthInfoW(
                                  nullptr, RPC_C_AUTHN_WINNT, nullptr, nullptr))) {
    return false;
  }
  if (!reporter.Starting()) return false;
  RPC_STATUS status = RPC_S_OK;
  if (!StartListening(status)) return true;
  if (!reporter.Succeeded(status)) return false;
  return reporter.Listening() && reporter.Succeeded(::RpcMgmtWaitServerListen());
}

}  // namespace

void RunRpcServer(RpcServerReport report) {
  const Reporter reporter(report);
  if (!reporter.Starting() || !UseProtocolSequences()) return;
  if (!reporter.Starting() ||
      !reporter.Succeeded(::RpcServerRegisterIf(Interface(), nullptr, nullptr)))
    return;
  // The bindings stay until the process ends unless everything has gone well.
  RPC_BINDING_VECTOR* bindings = nullptr;
  if (!reporter.Starting() || !reporter.Succeeded(::RpcServerInqBindings(&bindings)) ||
      !reporter.Succeeded(::RpcEpRegisterW(Interface(), bindings, nullptr, nullptr))) {
    return;
  }
  if (!Serve(reporter) || !reporter.Succeeded(::RpcEpUnregister(Interface(), bindings, nullptr)))
    return;
  ::RpcBindingVectorFree(&bindings);
}

void StopRpcServer() ZEL_EXCLUDES(listenLock) {
  const LockGuard guard(listenLock);
  ::RpcMgmtStopServerListening(nullptr);  // an error when nobody listens, which is as well
}

}  // namespace zel
