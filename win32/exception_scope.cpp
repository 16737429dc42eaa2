#include "win32/exception_scope.h"

#include <cstddef>

namespace zel {

#ifdef _MSC_VER

std::uint32_t CallInExceptionScope(void (*function)(void*), void* argument, ExceptionFilter* filter,
                                   const void* context) {
  std::uint32_t answer = 0;
  __try {
    function(argument);
  } __except ((answer = filter(*GetExceptionInformation()->ExceptionRecord, context)) != 0
                  ? EXCEPTION_EXECUTE_HANDLER
                  : EXCEPTION_CONTINUE_SEARCH) {
  }
  return answer;
}

#else

// This compiler has no __try, so the frame that the other makes of it is written out: one scope
// with a filter, which leaves its answer in the frame, and the place to go on at.
extern "C" {

std::uint32_t ZelCallInExceptionScope(void (*function)(void*), void* argument,
                                      ExceptionFilter* filter, const void* context);

// What the frame keeps above the 32 bytes for the callee.
struct ZelScopeFrame {
  char callee[32];
  ExceptionFilter* filter;
  const void* context;
  std::uint32_t answer;
};
static_assert(offsetof(ZelScopeFrame, filter) == 32 && offsetof(ZelScopeFrame, context) == 40 &&
              offsetof(ZelScopeFrame, answer) == 48);

long ZelFilterException(EXCEPTION_POINTERS* exception, ZelScopeFrame* frame) {
  frame->answer = frame->filter(*exception->ExceptionRecord, frame->context);
  return frame->answer != 0 ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH;
}

}  // extern "C"

asm(R"(
        .text
        .globl  ZelCallInExceptionScope
        .def    ZelCallInExceptionScope; .scl 2; .type 32; .endef
        .seh_proc ZelCallInExceptionScope
ZelCallInExceptionScope:
        subq    $56, %rsp               # a ZelScopeFrame
        .seh_stackalloc 56
        .seh_endprologue
        movq    %r8, 32(%rsp)
        movq    %r9, 40(%rsp)
.LZelTryBegin:
        movq    %rcx, %rax
        movq    %rdx, %rcx
        callq   *%rax
        nop                             # the return address lies inside the scope
.LZelTryEnd:
        xorl    %eax, %eax
        jmp     .LZelLeave
.LZelExcept:
        movl    48(%rsp), %eax
.LZelLeave:
        addq    $56, %rsp
        ret
        .seh_handler __C_specific_handler, @unwind, @except
        .seh_handlerdata
        .long   1
        .rva    .LZelTryBegin, .LZelTryEnd, ZelFilterException, .LZelExcept
        .text
        .seh_endproc
)");

std::uint32_t CallInExceptionScope(void (*function)(void*), void* argument, ExceptionFilter* filter,
                                   const void* context) {
  return ZelCallInExceptionScope(function, argument, filter, context);
}

#endif

}  // namespace zel
