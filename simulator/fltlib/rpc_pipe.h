// The C form of a pipe parameter, as the engine's clients and servers have it. Test bench only.
#pragma once

#include <rpc.h>

namespace zel::sim {

struct RpcPipe {
  void(__RPC_API* pull)(char* state, void* buffer, unsigned long size, unsigned long* count);
  void(__RPC_API* push)(char* state, void* buffer, unsigned long count);
  void(__RPC_API* alloc)(char* state, unsigned long size, void** buffer, unsigned long* count);
  char* state;
};

}  // namespace zel::sim
