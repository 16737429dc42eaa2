#include "client/binding.h"

#include "win32/rpc_string.h"

namespace zel {

namespace {

// The runtime takes strings that it could change, and null for what is not given.
RPC_WSTR OrNull(std::wstring& text) {
  return text.empty() ? nullptr : reinterpret_cast<RPC_WSTR>(text.data());
}

}  // namespace

std::uint32_t MakeBinding(const ServerAddress& address, UniqueBinding& binding) {
  ServerAddress parts = address;
  UniqueRpcString text;
  RPC_STATUS status =
      ::RpcStringBindingComposeW(nullptr, OrNull(parts.protocol_sequence), OrNull(parts.server),
                                 OrNull(parts.endpoint), nullptr, text.put());
  if (status == RPC_S_OK) status = ::RpcBindingFromStringBindingW(text.get(), binding.put());
  return static_cast<std::uint32_t>(status);
}

}  // namespace zel
