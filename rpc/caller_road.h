// The way that a call came, as the runtime tells it.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <string>

namespace zel {

struct CallerRoad {
  std::wstring protocol_sequence;  // empty when the runtime does not tell
  std::wstring address;            // of the caller's machine
};

// Of the call that `caller`, a security callback's binding, stands for.
[[nodiscard]] CallerRoad RoadOf(RPC_BINDING_HANDLE caller);

// Whose call this thread carries out, one text for each client that the runtime tells from others:
// a process of this machine, another machine. Clients that cannot be told apart have the same, and
// so have threads that carry out none.
[[nodiscard]] std::wstring ClientInHand();

}  // namespace zel
