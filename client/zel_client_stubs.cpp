#include "client/zel_client_stubs.h"

#include <bit>
#include <cstring>

#include "rpc/stub_descriptor.h"

namespace zel {

namespace {

const RPC_CLIENT_INTERFACE kClientInterface = {
    .Length = sizeof(RPC_CLIENT_INTERFACE),
    .InterfaceId = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kZelInterface),
    .TransferSyntax = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kNdrTransferSyntax),
    .DispatchTable = nullptr,
    .RpcProtseqEndpointCount = 0,
    .RpcProtseqEndpoint = nullptr,
    .Reserved = 0,
    .InterpreterInfo = nullptr,
    .Flags = RPC_INTERFACE_HAS_PIPES,
};

// The first byte tells how the sender's integers are laid out.
bool IsLittleEndian(const RPC_MESSAGE& message) {
  return (message.DataRepresentation & NDR_INT_REP_MASK) == NDR_LITTLE_ENDIAN;
}

std::uint32_t SendAndReceive(Operation operation, RPC_BINDING_HANDLE binding,
                             std::span<const std::byte> request, RPC_MESSAGE& message,
                             MIDL_STUB_MESSAGE& stub) {
  return CatchRpcException([&] {
    ::NdrClientInitializeNew(&message, &stub, &kZelClientStubs,
                             static_cast<unsigned int>(operation));
    ::NdrGetBuffer(&stub, static_cast<unsigned long>(request.size()), binding);
    std::memcpy(stub.Buffer, request.data(), request.size());
    ::NdrSendReceive(&stub, stub.Buffer + request.size());
  });
}

std::uint32_t ReadResponse(const RPC_MESSAGE& message, const ByteSink& sink, std::uint32_t& code) {
  const std::span response(static_cast<const std::byte*>(message.Buffer), message.BufferLength);
  if (!IsLittleEndian(message) || ReadPipeResponse(response, sink, code) != nullptr) {
    return RPC_X_BAD_STUB_DATA;
  }
  return RPC_S_OK;
}

}  // namespace

constinit const MIDL_STUB_DESC kZelClientStubs =
    StubDescriptor(const_cast<RPC_CLIENT_INTERFACE*>(&kClientInterface), nullptr);

std::uint32_t CallPipeOperation(Operation operation, RPC_BINDING_HANDLE binding,
                                std::span<const std::byte> request, const ByteSink& sink,
                                std::uint32_t& code) {
  RPC_MESSAGE message = {};
  MIDL_STUB_MESSAGE stub = {};
  std::uint32_t status = SendAndReceive(operation, binding, request, message, stub);
  if (status == RPC_S_OK) status = ReadResponse(message, sink, code);
  // Frees whatever there is, after a failure too.
  const std::uint32_t freeing = CatchRpcException([&] { ::NdrFreeBuffer(&stub); });
  return status != RPC_S_OK ? status : freeing;
}

}  // namespace zel
