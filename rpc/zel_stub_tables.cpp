#include <rpc.h>
#include <rpcndr.h>

#include <array>
#include <bit>

#include "rpc/procedures.h"
#include "rpc/stub_descriptor.h"
#include "rpc/zel_ndr_format.h"

namespace zel {

namespace {

static_assert(sizeof(RPC_SYNTAX_IDENTIFIER) == sizeof(SyntaxIdentifier));
static_assert(sizeof(void*) == 8, "the stub descriptions are those of 64-bit code");
static_assert(sizeof(wire::BytePipe) == 4 * sizeof(void*));

constexpr unsigned int kInterfaceIsInterpreted = 0x04000000;

// In the order of the numbers in the context handles' types.
const NDR_RUNDOWN kRundownRoutines[] = {FileListContext_rundown, BitmapListContext_rundown};

extern const MIDL_SERVER_INFO kServerInfo;

constinit const MIDL_STUB_DESC kStubDescriptor =
    StubDescriptor(const_cast<RPC_SERVER_INTERFACE*>(&kZelServerInterface), kRundownRoutines);

template <class Function>
SERVER_ROUTINE AsServerRoutine(Function* function) {
  return reinterpret_cast<SERVER_ROUTINE>(reinterpret_cast<void*>(function));
}

const SERVER_ROUTINE kServerRoutines[kOperations] = {
    AsServerRoutine(Ping),
    AsServerRoutine(ListFiles),
    AsServerRoutine(ListBitmaps),
    AsServerRoutine(CopyBitmap),
    AsServerRoutine(StartTracking),
    AsServerRoutine(StartTracking2),
    AsServerRoutine(StopTracking),
    AsServerRoutine(DeleteBitmap),
    AsServerRoutine(SynchronizeBitmaps),
    AsServerRoutine(GetDriverStatus),
    AsServerRoutine(ZEL_GetTrackedFiles),
};

const MIDL_SERVER_INFO kServerInfo = {
    .pStubDesc = &kStubDescriptor,
    .DispatchTable = kServerRoutines,
    .ProcString = kProcedureFormat.data(),
    .FmtStringOffset = kProcedureOffsets.data(),
    .ThunkTable = nullptr,
    .pTransferSyntax = nullptr,
    .nCount = 0,
    .pSyntaxInfo = nullptr,
};

// One entry more than there are operations: a runtime that checks the number but looks all the same
// finds nothing behind the last.
RPC_DISPATCH_FUNCTION dispatch_functions[kOperations + 1] = {
    NdrServerCall2, NdrServerCall2, NdrServerCall2, NdrServerCall2, NdrServerCall2, NdrServerCall2,
    NdrServerCall2, NdrServerCall2, NdrServerCall2, NdrServerCall2, NdrServerCall2, nullptr,
};

RPC_DISPATCH_TABLE dispatch_table = {kOperations, dispatch_functions, 0};

}  // namespace

const RPC_SERVER_INTERFACE kZelServerInterface = {
    .Length = sizeof(RPC_SERVER_INTERFACE),
    .InterfaceId = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kZelInterface),
    .TransferSyntax = std::bit_cast<RPC_SYNTAX_IDENTIFIER>(kNdrTransferSyntax),
    .DispatchTable = &dispatch_table,
    .RpcProtseqEndpointCount = 0,  // endpoints are dynamic
    .RpcProtseqEndpoint = nullptr,
    .DefaultManagerEpv = nullptr,
    .InterpreterInfo = &kServerInfo,
    .Flags = kInterfaceIsInterpreted | RPC_INTERFACE_HAS_PIPES,
};

}  // namespace zel
