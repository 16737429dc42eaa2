#include "client/zel_client_stubs.h"

#include <bit>

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

}  // namespace

constinit const MIDL_STUB_DESC kZelClientStubs =
    StubDescriptor(const_cast<RPC_CLIENT_INTERFACE*>(&kClientInterface), nullptr);

}  // namespace zel
