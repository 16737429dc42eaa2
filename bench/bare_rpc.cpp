#include "bench/bare_rpc.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "rpc/zel_interface.h"
#include "win32/rpc_exception.h"

namespace zel::bench {

namespace {

constexpr SyntaxIdentifier kBareInterface = {
    {0x2f5a1c00, 0x11aa, 0x4e55, {0x9b, 0x01, 0x52, 0x07, 0xc4, 0x66, 0x8d, 0x10}}, 1, 0};

constexpr auto kBareSyntax = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kBareInterface);
constexpr auto kNdrSyntax = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kNdrTransferSyntax);

void __RPC_STUB Answer(PRPC_MESSAGE message) {
  std::memcpy(&message->BufferLength, message->Buffer, sizeof message->BufferLength);
  const RPC_STATUS status = ::I_RpcGetBuffer(message);
  if (status != RPC_S_OK) ::RpcRaiseException(status);
  std::memset(message->Buffer, 0, message->BufferLength);
}

RPC_DISPATCH_FUNCTION functions[] = {Answer, nullptr};
RPC_DISPATCH_TABLE table = {1, functions, 0};

RPC_SERVER_INTERFACE server_interface = {
    sizeof(RPC_SERVER_INTERFACE), kBareSyntax, kNdrSyntax, &table, 0, nullptr, nullptr, nullptr, 0};
RPC_CLIENT_INTERFACE client_interface = {
    sizeof(RPC_CLIENT_INTERFACE), kBareSyntax, kNdrSyntax, nullptr, 0, nullptr, 0, nullptr, 0};

}  // namespace

bool RegisterBareInterface() {
  return ::RpcServerRegisterIf(&server_interface, nullptr, nullptr) == RPC_S_OK;
}

std::uint32_t CallBare(RPC_BINDING_HANDLE binding, std::uint32_t answer_bytes) {
  MIDL_STUB_DESC descriptor = {};
  descriptor.RpcInterfaceInformation = &client_interface;
  descriptor.pfnAllocate = std::malloc;
  descriptor.pfnFree = std::free;
  descriptor.Version = 0x60001;
  RPC_MESSAGE message = {};
  MIDL_STUB_MESSAGE stub = {};
  const std::uint32_t status = CatchRpcException([&] {
    ::NdrClientInitializeNew(&message, &stub, &descriptor, 0);
    ::NdrGetBuffer(&stub, sizeof answer_bytes, binding);
    std::memcpy(stub.Buffer, &answer_bytes, sizeof answer_bytes);
    ::NdrSendReceive(&stub, stub.Buffer + sizeof answer_bytes);
  });
  (void)CatchRpcException([&] { ::NdrFreeBuffer(&stub); });
  return status;
}

}  // namespace zel::bench
