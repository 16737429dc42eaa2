#include "win32/view_fault.h"

#include "win32/exception_scope.h"

namespace zel {

namespace {

struct View {
  std::uintptr_t begin;
  std::size_t bytes;
};

// Where memory was touched; what says why a page of a file could not be had.
enum Information { kAddress = 1, kPageStatus = 2 };

bool IsMemoryFault(const EXCEPTION_RECORD& exception) {
  return (exception.ExceptionCode == STATUS_IN_PAGE_ERROR ||
          exception.ExceptionCode == STATUS_ACCESS_VIOLATION) &&
         exception.NumberParameters > kAddress;
}

std::uint32_t FaultInView(const EXCEPTION_RECORD& exception, const void* context) {
  const View& view = *static_cast<const View*>(context);
  if (!IsMemoryFault(exception)) return 0;
  if (exception.ExceptionInformation[kAddress] - view.begin >= view.bytes) return 0;
  if (exception.NumberParameters > kPageStatus) {
    const auto status = static_cast<std::uint32_t>(exception.ExceptionInformation[kPageStatus]);
    if (status != 0) return status;
  }
  return exception.ExceptionCode;
}

}  // namespace

std::uint32_t CatchViewFault(const void* view, std::size_t bytes, void (*function)(void*),
                             void* argument) {
  const View context = {reinterpret_cast<std::uintptr_t>(view), bytes};
  return CallInExceptionScope(function, argument, FaultInView, &context);
}

}  // namespace zel
