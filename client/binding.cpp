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

std::uint32_t Authenticate(const UniqueBinding& binding) {
  RPC_SECURITY_QOS quality = {.Version = RPC_C_SECURITY_QOS_VERSION,
                              .Capabilities = RPC_C_QOS_CAPABILITIES_DEFAULT,
                              .IdentityTracking = RPC_C_QOS_IDENTITY_STATIC,
                              .ImpersonationType = RPC_C_IMP_LEVEL_IDENTIFY};
  return static_cast<std::uint32_t>(
      ::RpcBindingSetAuthInfoExW(binding.get(), nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                 RPC_C_AUTHN_WINNT, nullptr, RPC_C_AUTHZ_NONE, &quality));
}

}  // namespace zel
