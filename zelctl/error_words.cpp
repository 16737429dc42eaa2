#include "zelctl/error_words.h"

#include <algorithm>

namespace zel::ctl {

namespace {

Failure FromCode(Machine& machine, std::uint32_t code, std::string message) {
  return {.exit_code = ExitCode::kRefused,
          .code = code,
          .name = machine.Describe(code).name,
          .message = std::move(message)};
}

std::string Place(const Request& request) {
  return (request.server.empty() ? std::string("this machine") : request.server) + " over " +
         request.protseq + (request.endpoint.empty() ? std::string() : " at " + request.endpoint);
}

// What to look at when a call fails with that RPC status.
std::string WhatToCheck(std::uint32_t rpc_status, bool is_remote) {
  switch (rpc_status) {
    case 1700:  // RPC_S_INVALID_STRING_BINDING
    case 1703:  // RPC_S_PROTSEQ_NOT_SUPPORTED
    case 1704:  // RPC_S_INVALID_RPC_PROTSEQ
    case 1706:  // RPC_S_INVALID_ENDPOINT_FORMAT
    case 1707:  // RPC_S_INVALID_NET_ADDR
      return "check --server, --protseq and --endpoint";
    case 5:     // ERROR_ACCESS_DENIED
    case 1825:  // RPC_S_SEC_PKG_ERROR
      return "check that you are an administrator there";
    case 1726:  // RPC_S_CALL_FAILED
    case 1727:  // RPC_S_CALL_FAILED_DNE
      return "the service may have ended meanwhile: check sc query ZelService and its log";
    case 1717:  // RPC_S_UNKNOWN_IF
    case 1722:  // RPC_S_SERVER_UNAVAILABLE
    case 1753:  // EPT_S_NOT_REGISTERED
      return is_remote ? "check there that ZelService is running (sc query ZelService) and that "
                         "the firewall lets calls through"
                       : "check that ZelService is running (sc query ZelService)";
    default:
      return "check the service's log";
  }
}

}  // namespace

MaybeFailure CheckAnswer(Machine& machine, const Request& request, const Answer& answer,
                         const std::string& otherwise, std::initializer_list<KnownAnswer> known) {
  if (answer.ok()) return std::nullopt;
  if (answer.rpc_status != 0) {
    Failure failure = FromCode(machine, answer.rpc_status,
                               "no answer from the service on " + Place(request) + ": " +
                                   machine.Describe(answer.rpc_status).text + "; " +
                                   WhatToCheck(answer.rpc_status, !request.server.empty()));
    failure.exit_code = ExitCode::kNoService;
    return failure;
  }
  const auto* const found = std::ranges::find(known, answer.code, &KnownAnswer::code);
  if (found != known.end()) return FromCode(machine, answer.code, found->message);
  return CheckSystem(machine, answer.code, otherwise);
}

MaybeFailure CheckSystem(Machine& machine, std::uint32_t code, const std::string& what) {
  if (code == 0) return std::nullopt;
  return FromCode(machine, code, what + ": " + machine.Describe(code).text);
}

}  // namespace zel::ctl
