// Exceptions of the RPC runtime, turned into values.
//
// The runtime reports a failed call, and a server's pipe its broken connection, by a structured
// exception. This program's own stack frames are not unwound by one: their destructors do not run
// (MinGW). So whatever may raise is called through here from frames that own something, and a
// server routine that has to raise does so in a frame that owns nothing.
#pragma once

#include <cstdint>
#include <memory>

namespace zel {

// Calls `function(argument)` and returns 0, or the code of the RPC exception that ended it. Faults
// of the processor (access violations and the like) are nobody's message and pass through.
[[nodiscard]] std::uint32_t CatchRpcException(void (*function)(void*), void* argument);

// The same for anything that can be called. `work` runs in frames that own nothing.
template <class Work>
[[nodiscard]] std::uint32_t CatchRpcException(Work work) {
  return CatchRpcException([](void* argument) { (*static_cast<Work*>(argument))(); },
                           std::addressof(work));
}

}  // namespace zel
