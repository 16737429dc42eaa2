// The stub descriptor over the descriptions of rpc/zel_ndr_format.h, which both sides have: the
// server with its rundown routines, the client without.
#pragma once

#include <rpcndr.h>

#include <cstdlib>

#include "rpc/zel_ndr_format.h"

namespace zel {

// `interface_information` is an RPC_SERVER_INTERFACE or an RPC_CLIENT_INTERFACE; both arguments are
// kept by the result.
constexpr MIDL_STUB_DESC StubDescriptor(void* interface_information,
                                        const NDR_RUNDOWN* rundown_routines) {
  return {
      .RpcInterfaceInformation = interface_information,
      .pfnAllocate = std::malloc,
      .pfnFree = std::free,
      .IMPLICIT_HANDLE_INFO = {},
      .apfnNdrRundownRoutines = rundown_routines,
      .aGenericBindingRoutinePairs = nullptr,
      .apfnExprEval = nullptr,
      .aXmitQuintuple = nullptr,
      .pFormatTypes = kTypeFormat.data(),
      .fCheckBounds = 1,
      .Version = 0x60001,  // the engine that knows the form
      .pMallocFreeStruct = nullptr,
      .MIDLVersion = 0x8010274,  // the compiler that would have made it
      .CommFaultOffsets = nullptr,
      .aUserMarshalQuadruple = nullptr,
      .NotifyRoutineTable = nullptr,
      .mFlags = 1,  // interpreted, as MIDL says
      .CsRoutineTables = nullptr,
      .Reserved4 = nullptr,
      .Reserved5 = 0,
  };
}

}  // namespace zel
