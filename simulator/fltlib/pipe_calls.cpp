#include "simulator/fltlib/pipe_calls.h"

#include <rpcndr.h>

#include <cstring>

#include "simulator/fltlib/pipe_procedure.h"
#include "simulator/fltlib/rpc_pipe.h"
#include "simulator/fltlib/security_callback.h"
#include "win32/rpc_exception.h"

namespace zel::sim {

ServerCall* system_server_call = nullptr;

namespace {

constexpr unsigned long kLittleEndianAsciiIeee = 0x10;

void __RPC_API Push(char* state, void* buffer, unsigned long count) {
  auto& response = *reinterpret_cast<PipeResponse*>(state);
  if (!response.Push({static_cast<const std::byte*>(buffer), count})) {
    ::RpcRaiseException(RPC_X_PIPE_CLOSED);
  }
}

// An [out] pipe is the server's to push to.
void __RPC_API RefusePull(char*, void*, unsigned long, unsigned long*) {
  ::RpcRaiseException(RPC_X_WRONG_PIPE_ORDER);
}
void __RPC_API RefuseAlloc(char*, unsigned long, void**, unsigned long*) {
  ::RpcRaiseException(RPC_X_WRONG_PIPE_ORDER);
}

// By the calling convention of 64-bit code a routine may be given more than it takes.
std::uint32_t Call(SERVER_ROUTINE routine, const Slots& s) {
  using Routine = std::uint32_t (*)(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t,
                                    std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t,
                                    std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t);
  const auto any = reinterpret_cast<Routine>(reinterpret_cast<void*>(routine));
  return any(s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], s[8], s[9], s[10], s[11]);
}

RPC_STATUS Respond(RPC_MESSAGE& message, const PipeResponse& response) {
  message.BufferLength = static_cast<unsigned int>(response.bytes().size());
  const RPC_STATUS status = ::I_RpcGetBuffer(&message);
  if (status == RPC_S_OK) {
    std::memcpy(message.Buffer, response.bytes().data(), response.bytes().size());
  }
  return status;
}

// Answers what is to be raised: whatever ends the call, nothing here is left behind.
std::uint32_t CallWithPipe(RPC_MESSAGE& message, const unsigned char* description,
                           const MIDL_SERVER_INFO& server) noexcept {
  const auto procedure =
      ReadPipeProcedure(description, server.pStubDesc->pFormatTypes, message.ProcNum);
  if (!procedure) return RPC_X_WRONG_STUB_VERSION;
  PipeResponse response;
  RpcPipe pipe = {RefusePull, Push, RefuseAlloc, reinterpret_cast<char*>(&response)};
  Slots slots = {};
  if ((message.DataRepresentation & 0xFFFF) != kLittleEndianAsciiIeee ||
      !ReadInputs(*procedure, {static_cast<const std::byte*>(message.Buffer), message.BufferLength},
                  slots)) {
    return RPC_X_BAD_STUB_DATA;
  }
  slots[procedure->handle_slot] = reinterpret_cast<std::uint64_t>(message.Handle);
  slots[procedure->pipe_slot] = reinterpret_cast<std::uint64_t>(&pipe);
  std::uint32_t result = 0;
  const std::uint32_t raised =
      CatchRpcException([&] { result = Call(server.DispatchTable[message.ProcNum], slots); });
  if (raised != 0) return raised;
  if (!response.ended()) return RPC_X_PIPE_DISCIPLINE_ERROR;
  response.Return(result);
  return static_cast<std::uint32_t>(Respond(message, response));
}

}  // namespace

void RPC_ENTRY PipingServerCall(RPC_MESSAGE* message) {
  AskSecurityCallback(*message);
  const auto& server_interface =
      *static_cast<const RPC_SERVER_INTERFACE*>(message->RpcInterfaceInformation);
  const auto& server = *static_cast<const MIDL_SERVER_INFO*>(server_interface.InterpreterInfo);
  const unsigned char* const description =
      server.ProcString + server.FmtStringOffset[message->ProcNum];
  if (!HasPipes(description)) return system_server_call(message);
  const std::uint32_t raised = CallWithPipe(*message, description, server);
  if (raised != 0) ::RpcRaiseException(static_cast<RPC_STATUS>(raised));
}

}  // namespace zel::sim
