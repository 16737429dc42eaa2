#include "win32/rpc_exception.h"

#include <windows.h>

extern "C" {

// Decides who handles an exception. Named here and called by the system.
long ZelFilterRpcException(EXCEPTION_POINTERS* exception, void*) {
  switch (exception->ExceptionRecord->ExceptionCode) {
    case STATUS_ACCESS_VIOLATION:
    case STATUS_BREAKPOINT:
    case STATUS_DATATYPE_MISALIGNMENT:
    case STATUS_ILLEGAL_INSTRUCTION:
    case STATUS_IN_PAGE_ERROR:
    case STATUS_PRIVILEGED_INSTRUCTION:
    case STATUS_SINGLE_STEP:
    case STATUS_STACK_OVERFLOW:
      return EXCEPTION_CONTINUE_SEARCH;
    default:
      return EXCEPTION_EXECUTE_HANDLER;
  }
}

unsigned long ZelCatchRpcException(void (*function)(void*), void* argument);

}  // extern "C"

#ifdef _MSC_VER

unsigned long ZelCatchRpcException(void (*function)(void*), void* argument) {
  __try {
    function(argument);
    return 0;
  } __except (ZelFilterRpcException(GetExceptionInformation(), nullptr)) {
    return GetExceptionCode();
  }
}

#else

// What the compiler above makes of __try, which this one does not know: a frame with one scope,
// whose handler the system continues at with the exception's code in eax.
asm(R"(
        .text
        .globl  ZelCatchRpcException
        .def    ZelCatchRpcException; .scl 2; .type 32; .endef
        .seh_proc ZelCatchRpcException
ZelCatchRpcException:
        subq    $40, %rsp
        .seh_stackalloc 40
        .seh_endprologue
.LZelTryBegin:
        movq    %rcx, %rax
        movq    %rdx, %rcx
        callq   *%rax
        nop                             # the return address lies inside the scope
.LZelTryEnd:
        xorl    %eax, %eax
.LZelExcept:
        addq    $40, %rsp
        ret
        .seh_handler __C_specific_handler, @unwind, @except
        .seh_handlerdata
        .long   1
        .rva    .LZelTryBegin, .LZelTryEnd, ZelFilterRpcException, .LZelExcept
        .text
        .seh_endproc
)");

#endif

namespace zel {

std::uint32_t CatchRpcException(void (*function)(void*), void* argument) {
  return ZelCatchRpcException(function, argument);
}

}  // namespace zel
