#include "win32/rpc_exception.h"

#include "win32/exception_scope.h"

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

std::uint32_t RpcExceptionCode(const EXCEPTION_RECORD& exception, const void*) {
  return IsProcessorFault(exception.ExceptionCode) ? 0 : exception.ExceptionCode;
}

}  // namespace

std::uint32_t CatchRpcException(void (*function)(void*), void* argument) {
  return CallInExceptionScope(function, argument, RpcExceptionCode, nullptr);
}

}  // namespace zel
