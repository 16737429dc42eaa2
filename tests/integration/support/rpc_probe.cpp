// One ping by the project's own client from a process of its own.
//
//   rpc_probe PROTOCOL_SEQUENCE [ENDPOINT]     the endpoint mapper is asked when none is given
//
// Prints the RPC status and the service's code.
#include <cstdio>
#include <utility>

#include "client/zel_client.h"

int wmain(int argc, wchar_t** argv) {
  if (argc < 2) return 2;
  zel::UniqueBinding binding;
  zel::CallResult result;
  result.rpc_status = zel::MakeBinding({argv[1], L"", argc > 2 ? argv[2] : L""}, binding);
  if (result.rpc_status == 0) result = zel::ZelClient(std::move(binding)).Ping();
  std::printf("%u %u\n", result.rpc_status, result.code);
  return result.ok() ? 0 : 1;
}
