// Faults in the view of a file, turned into values.
//
// A page of a mapped file that cannot be read from its device, or written to it, is told by a
// structured exception at whichever instruction touched it. Nobody between there and here is
// unwound, so the work owns nothing: it computes, and neither locks, allocates nor logs. What it
// has done until then is done; what it would have left in its caller's variables is not to be
// relied upon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zel {

// Calls `function(argument)` and returns 0, or the code of the fault that ended it: an NTSTATUS or
// a Win32 code, never 0. Only faults at the `bytes` bytes from `view` on count; any other is
// nobody's to catch here and passes through.
//
// Threads: any. Cost: that of three calls.
[[nodiscard]] std::uint32_t CatchViewFault(const void* view, std::size_t bytes,
                                           void (*function)(void*), void* argument);

// The same for anything that can be called.
template <class Work>
[[nodiscard]] std::uint32_t CatchViewFault(const void* view, std::size_t bytes, Work work) {
  return CatchViewFault(
      view, bytes, [](void* argument) { (*static_cast<Work*>(argument))(); }, std::addressof(work));
}

}  // namespace zel
