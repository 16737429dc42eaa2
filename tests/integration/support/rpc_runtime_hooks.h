// Sees this program's calls of the RPC runtime's server functions, and lets them answer what a test
// says instead of doing anything.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "rpc/rpc_server.h"
#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_RpcServerUseProtseqW;
extern void* __imp_RpcServerRegisterIf;
extern void* __imp_RpcServerRegisterIf2;
extern void* __imp_RpcServerUnregisterIf;
extern void* __imp_RpcServerInqBindings;
extern void* __imp_RpcEpRegisterW;
extern void* __imp_RpcServerRegisterAuthInfoW;
extern void* __imp_RpcServerListen;
extern void* __imp_RpcMgmtWaitServerListen;
extern void* __imp_RpcEpUnregister;
extern void* __imp_RpcBindingVectorFree;
}

namespace zel::test {

// Everything happens on the thread that runs the server. Its reports are noted among the calls:
// "report starting", "report listening", "report failure STATUS".
class RpcRuntimeHooks {
 public:
  RpcRuntimeHooks() {
    calls_.clear();
    answers_.clear();
    refused_report_ = 0;
  }

  // What a call answers, by its first word ("listen") or, for a sequence, all of it.
  static void Answer(const std::string& call, RPC_STATUS status) { answers_[call] = status; }
  static void AnswerAllSequences(RPC_STATUS status) { answers_["use"] = status; }

  // The report of this number, from 1, is refused.
  static void RefuseReport(int number) { refused_report_ = number; }

  // Called by the wait for the end of listening.
  static inline std::function<void()> on_wait = [] {};

  static const std::vector<std::string>& calls() { return calls_; }

  // For RunRpcServer.
  static bool Report(RpcServerStep step, std::uint32_t status) {
    Note(step == RpcServerStep::kStarting    ? "report starting"
         : step == RpcServerStep::kListening ? "report listening"
                                             : "report failure " + std::to_string(status));
    return --refused_report_ != 0;
  }

 private:
  static RPC_STATUS Note(const std::string& call) {
    calls_.push_back(call);
    for (const std::string& key : {call, call.substr(0, call.find(' '))}) {
      if (const auto found = answers_.find(key); found != answers_.end()) return found->second;
    }
    return RPC_S_OK;
  }

  static RPC_STATUS RPC_ENTRY UseProtseq(RPC_WSTR sequence, unsigned int queue, void* descriptor) {
    EXPECT_EQ(descriptor, nullptr);
    return Note("use " + std::filesystem::path(reinterpret_cast<wchar_t*>(sequence)).string() +
                " " + std::to_string(queue));
  }
  static RPC_STATUS RPC_ENTRY RegisterIf(RPC_IF_HANDLE interface_, UUID* type, RPC_MGR_EPV* epv) {
    EXPECT_NE(interface_, nullptr);
    EXPECT_EQ(type, nullptr);
    EXPECT_EQ(epv, nullptr);
    return Note("register");
  }
  static RPC_STATUS RPC_ENTRY RegisterIf2(RPC_IF_HANDLE interface_, UUID* type, RPC_MGR_EPV* epv,
                                          unsigned int flags, unsigned int calls, unsigned int size,
                                          RPC_IF_CALLBACK_FN* callback) {
    EXPECT_NE(interface_, nullptr);
    EXPECT_EQ(type, nullptr);
    EXPECT_EQ(epv, nullptr);
    EXPECT_NE(callback, nullptr);
    return Note("checked " + std::to_string(flags) + " " + std::to_string(calls) + " " +
                std::to_string(size));
  }
  static RPC_STATUS RPC_ENTRY UnregisterIf(RPC_IF_HANDLE interface_, UUID* type,
                                           unsigned int wait) {
    EXPECT_NE(interface_, nullptr);
    EXPECT_EQ(type, nullptr);
    return Note("unregister " + std::to_string(wait));
  }
  static RPC_STATUS RPC_ENTRY InqBindings(RPC_BINDING_VECTOR** vector) {
    *vector = &bindings_;
    return Note("bindings");
  }
  static RPC_STATUS RPC_ENTRY EpRegister(RPC_IF_HANDLE, RPC_BINDING_VECTOR* vector,
                                         UUID_VECTOR* objects, RPC_WSTR annotation) {
    EXPECT_EQ(vector, &bindings_);
    EXPECT_EQ(objects, nullptr);
    EXPECT_EQ(annotation, nullptr);
    return Note("publish");
  }
  static RPC_STATUS RPC_ENTRY RegisterAuth(RPC_WSTR name, unsigned long service,
                                           RPC_AUTH_KEY_RETRIEVAL_FN key_function, void* argument) {
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(key_function, nullptr);
    EXPECT_EQ(argument, nullptr);
    return Note("authentication " + std::to_string(service));
  }
  static RPC_STATUS RPC_ENTRY Listen(unsigned int threads, unsigned int calls, unsigned int wait) {
    return Note("listen " + std::to_string(threads) + " " + std::to_string(calls) + " " +
                std::to_string(wait));
  }
  static RPC_STATUS RPC_ENTRY Wait() {
    const RPC_STATUS status = Note("wait");
    on_wait();
    return status;
  }
  static RPC_STATUS RPC_ENTRY EpUnregister(RPC_IF_HANDLE, RPC_BINDING_VECTOR* vector,
                                           UUID_VECTOR* objects) {
    EXPECT_EQ(vector, &bindings_);
    EXPECT_EQ(objects, nullptr);
    return Note("withdraw");
  }
  static RPC_STATUS RPC_ENTRY FreeBindings(RPC_BINDING_VECTOR** vector) {
    EXPECT_EQ(*vector, &bindings_);
    *vector = nullptr;
    return Note("free");
  }

  static inline RPC_BINDING_VECTOR bindings_;
  static inline std::vector<std::string> calls_;
  static inline std::map<std::string, RPC_STATUS> answers_;
  static inline int refused_report_ = 0;

  ImportHook use_{__imp_RpcServerUseProtseqW, &UseProtseq};
  ImportHook register_{__imp_RpcServerRegisterIf, &RegisterIf};
  ImportHook register2_{__imp_RpcServerRegisterIf2, &RegisterIf2};
  ImportHook unregister_{__imp_RpcServerUnregisterIf, &UnregisterIf};
  ImportHook bindings_hook_{__imp_RpcServerInqBindings, &InqBindings};
  ImportHook publish_{__imp_RpcEpRegisterW, &EpRegister};
  ImportHook authentication_{__imp_RpcServerRegisterAuthInfoW, &RegisterAuth};
  ImportHook listen_{__imp_RpcServerListen, &Listen};
  ImportHook wait_{__imp_RpcMgmtWaitServerListen, &Wait};
  ImportHook withdraw_{__imp_RpcEpUnregister, &EpUnregister};
  ImportHook free_{__imp_RpcBindingVectorFree, &FreeBindings};
};

}  // namespace zel::test
