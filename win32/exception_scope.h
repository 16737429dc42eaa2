// A structured exception, turned into a value at one place: the scope that `__try` and `__except`
// make, which MinGW's compiler does not have.
//
// The frames between the scope and the exception are not unwound: their destructors do not run. So
// they own nothing.
//
// Cost: that of two calls; the exception itself is found by tables.
#pragma once

#include <windows.h>

#include <cstdint>

namespace zel {

// Which exceptions end the scope: answers what the scope is to answer then, or 0 for one that it
// lets pass. Called with `context` where the exception was raised, before anything is unwound.
using ExceptionFilter = std::uint32_t(const EXCEPTION_RECORD& exception, const void* context);

// Calls `function(argument)` and returns 0, or what the filter answered to the exception that ended
// it.
[[nodiscard]] std::uint32_t CallInExceptionScope(void (*function)(void*), void* argument,
                                                 ExceptionFilter* filter, const void* context);

}  // namespace zel
