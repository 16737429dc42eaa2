#include "rpc/rpc_server.h"

#include <rpc.h>
#include <windows.h>

#include "errors/error_info.h"
#include "logging/log_message.h"
#include "rpc/callers.h"
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

  // True for success; otherwise the failure of `function` has been logged and then reported:
  // whoever hears of it may end the process.
  [[nodiscard]] bool Succeeded(const wchar_t* function, RPC_STATUS status) {
    if (status == RPC_S_OK) return true;
    failure_ = static_cast<std::uint32_t>(status);
    LogMessage(kGeneralError, L"%s failed: %hs\n", function, ErrorInfo(failure_).text());
    report_(RpcServerStep::kFailed, failure_);
    return false;
  }

  // Of no protocol sequence at all, which is not reported.
  void NoProtocolSequences() {
    failure_ = RPC_S_NO_PROTSEQS;
    LogMessage(kGeneralError, L"no protocols registered");
  }

  // The status of the step that failed; 0 while none has.
  [[nodiscard]] std::uint32_t failure() const { return failure_; }

 private:
  RpcServerReport report_;
  std::uint32_t failure_ = RPC_S_OK;
};

// False when no protocol sequence at all can be used.
bool UseProtocolSequences() {
  bool any = false;
  for (const wchar_t* sequence : {L"ncalrpc", L"ncacn_ip_tcp", L"ncacn_np", L"ncacn_http"}) {
    wchar_t name[16];
    ::wcscpy_s(name, sequence);
    any |= ::RpcServerUseProtseqW(reinterpret_cast<RPC_WSTR>(name), kMaxQueuedCalls, nullptr) ==
           RPC_S_OK;
  }
  return any;
}

// False when a stop has come already: there is then nothing to wait for.
bool StartListening(RPC_STATUS& status) ZEL_EXCLUDES(listenLock) {
  const LockGuard guard(listenLock);
  if (StopRequested) return false;
  status = ::RpcServerListen(kMinCallThreads, kMaxConcurrentCalls, TRUE);
  return true;
}

RPC_STATUS WaitForTheEndOfListening() {
  const RPC_STATUS status = ::RpcMgmtWaitServerListen();
  // A stop that came before the wait has ended already what is waited for.
  return status == RPC_S_NOT_LISTENING && StopRequested ? RPC_S_OK : status;
}

// Serves calls until listening is stopped. False when a step failed or the service is not to go on.
bool Serve(Reporter& reporter) {
  if (!reporter.Starting() ||
      !reporter.Succeeded(
          L"RpcServerRegisterAuthInfo",
          ::RpcServerRegisterAuthInfoW(nullptr, RPC_C_AUTHN_WINNT, nullptr, nullptr)) ||
      !reporter.Starting()) {
    return false;
  }
  RPC_STATUS status = RPC_S_OK;
  if (!StartListening(status)) return true;
  return reporter.Succeeded(L"RpcServerListen", status) && reporter.Listening() &&
         reporter.Succeeded(L"RpcMgmtWaitServerListen", WaitForTheEndOfListening());
}

bool RegisterInterface(Reporter& reporter, CallerControl& callers) {
  const RegistrationResult result = callers.Register();
  return reporter.Succeeded(result.function, result.status);
}

void Run(Reporter& reporter) {
  CallerControl callers;
  if (!reporter.Starting()) return;
  if (!UseProtocolSequences()) return reporter.NoProtocolSequences();
  if (!reporter.Starting() || !RegisterInterface(reporter, callers)) return;
  // The bindings stay until the process ends unless everything has gone well.
  RPC_BINDING_VECTOR* bindings = nullptr;
  if (!reporter.Starting() ||
      !reporter.Succeeded(L"RpcServerInqBindings", ::RpcServerInqBindings(&bindings)) ||
      !reporter.Succeeded(L"RpcEpRegister",
                          ::RpcEpRegisterW(Interface(), bindings, nullptr, nullptr))) {
    return;
  }
  if (!Serve(reporter) ||
      !reporter.Succeeded(L"RpcEpUnregister", ::RpcEpUnregister(Interface(), bindings, nullptr))) {
    return;
  }
  ::RpcBindingVectorFree(&bindings);
}

}  // namespace

std::uint32_t RunRpcServer(RpcServerReport report) {
  Reporter reporter(report);
  Run(reporter);
  return reporter.failure();
}

void StopRpcServer() ZEL_EXCLUDES(listenLock) {
  const LockGuard guard(listenLock);
  ::RpcMgmtStopServerListening(nullptr);  // an error when nobody listens, which is as well
}

}  // namespace zel
