#include "win32/rpc_exception.h"

#include <windows.h>

#include <cstring>

namespace zel {

namespace {

bool IsProcessorFault(DWORD code) {
  switch (code) {
    case STATUS_ACCESS_VIOLATION:
    case STATUS_BREAKPOINT:
    case STATUS_DATATYPE_MISALIGNMENT:
    case STATUS_ILLEGAL_INSTRUCTION:
    case STATUS_IN_PAGE_ERROR:
    case STATUS_PRIVILEGED_INSTRUCTION:
    case STATUS_SINGLE_STEP:
    case STATUS_STACK_OVERFLOW:
      return true;
    default:
      return false;
  }
}

}  // namespace

#ifdef _MSC_VER

std::uint32_t CatchRpcException(void (*function)(void*), void* argument) {
  __try {
    function(argument);
    return 0;
  } __except (IsProcessorFault(GetExceptionCode()) ? EXCEPTION_CONTINUE_SEARCH
                                                   : EXCEPTION_EXECUTE_HANDLER) {
    return GetExceptionCode();
  }
}

#else

// This compiler has no __try, so the frame that the other makes of it is written out: one scope
// with a filter, which leaves the code in the frame, and the place to go on at.
extern "C" {

std::uint32_t ZelCatchRpcException(void (*function)(void*), void* argument);

long ZelFilterRpcException(EXCEPTION_POINTERS* exception, char* frame) {
  const DWORD code = exception->ExceptionRecord->ExceptionCode;
  if (IsProcessorFault(code)) return EXCEPTION_CONTINUE_SEARCH;
  std::memcpy(frame + 32, &code, sizeof code);
  return EXCEPTION_EXECUTE_HANDLER;
}

}  // extern "C"

asm(R"(
        .text
        .globl  ZelCatchRpcException
        .def    ZelCatchRpcException; .scl 2; .type 32; .endef
        .seh_proc ZelCatchRpcException
ZelCatchRpcException:
        subq    $40, %rsp               # 32 bytes for the callee, then the code
        .seh_stackalloc 40
        .seh_endprologue
.LZelTryBegin:
        movq    %rcx, %rax
        movq    %rdx, %rcx
        callq   *%rax
        nop                             # the return address lies inside the scope
.LZelTryEnd:
        xorl    %eax, %eax
        jmp     .LZelLeave
.LZelExcept:
        movl    32(%rsp), %eax
.LZelLeave:
        addq    $40, %rsp
        ret
        .seh_handler __C_specific_handler, @unwind, @except
        .seh_handlerdata
        .long   1
        .rva    .LZelTryBegin, .LZelTryEnd, ZelFilterRpcException, .LZelExcept
        .text
        .seh_endproc
)");

std::uint32_t CatchRpcException(void (*function)(void*), void* argument) {
  return ZelCatchRpcException(function, argument);
}

#endif

}  // namespace zel
