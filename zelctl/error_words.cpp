#include "zelctl/error_words.h"

#include <algorithm>
#include <iterator>

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

struct RpcStatus {
  std::uint32_t code;
  const char* name;  // the table of winerror.h names has none of these
  const char* advice;
};
constexpr char kCheckPlace[] = "check --server, --protseq and --endpoint";
constexpr char kCheckRunning[] = "check there that ZelService is running (sc query ZelService)";
constexpr char kCheckLog[] =
    "the service may have ended meanwhile: check sc query ZelService and its log";
constexpr RpcStatus kRpcStatuses[] = {
    {5, "ERROR_ACCESS_DENIED", "check that you are an administrator there"},
    {1700, "RPC_S_INVALID_STRING_BINDING", kCheckPlace},
    {1703, "RPC_S_PROTSEQ_NOT_SUPPORTED", kCheckPlace},
    {1704, "RPC_S_INVALID_RPC_PROTSEQ", kCheckPlace},
    {1706, "RPC_S_INVALID_ENDPOINT_FORMAT", kCheckPlace},
    {1707, "RPC_S_INVALID_NET_ADDR", kCheckPlace},
    {1715, "RPC_S_NOT_LISTENING", kCheckRunning},
    {1717, "RPC_S_UNKNOWN_IF", kCheckRunning},
    {1722, "RPC_S_SERVER_UNAVAILABLE", kCheckRunning},
    {1723, "RPC_S_SERVER_TOO_BUSY", kCheckRunning},
    {1726, "RPC_S_CALL_FAILED", kCheckLog},
    {1727, "RPC_S_CALL_FAILED_DNE", kCheckLog},
    {1753, "EPT_S_NOT_REGISTERED", kCheckRunning},
    {1783, "RPC_X_BAD_STUB_DATA", kCheckLog},
    {1728, "RPC_S_PROTOCOL_ERROR", kCheckPlace},
    {1818, "RPC_S_CALL_CANCELED",
     "it did not answer within --timeout: look whether it hangs, and at its log"},
    {1825, "RPC_S_SEC_PKG_ERROR", "check that you are an administrator there"},
};

Failure NoAnswer(Machine& machine, const Request& request, std::uint32_t rpc_status) {
  const auto* const known = std::ranges::find(kRpcStatuses, rpc_status, &RpcStatus::code);
  const bool is_known = known != std::end(kRpcStatuses);
  const ErrorWords words = machine.Describe(rpc_status);
  std::string message = "no answer from the service on " + Place(request) + ": " + words.text +
                        "; " + (is_known ? known->advice : "check the service's log");
  if (!request.server.empty() && is_known && known->advice == kCheckRunning) {
    message += " and that the firewall lets calls through";
  }
  return {.exit_code = ExitCode::kNoService,
          .code = rpc_status,
          .name = is_known ? known->name : words.name,
          .message = std::move(message)};
}

}  // namespace

MaybeFailure CheckAnswer(Machine& machine, const Request& request, const Answer& answer,
                         const std::string& otherwise, std::initializer_list<KnownAnswer> known) {
  if (answer.ok()) return std::nullopt;
  if (answer.rpc_status != 0) return NoAnswer(machine, request, answer.rpc_status);
  const auto* const found = std::ranges::find(known, answer.code, &KnownAnswer::code);
  if (found != known.end()) return FromCode(machine, answer.code, found->message);
  return CheckSystem(machine, answer.code, otherwise);
}

MaybeFailure CheckSystem(Machine& machine, std::uint32_t code, const std::string& what) {
  if (code == 0) return std::nullopt;
  return FromCode(machine, code, what + ": " + machine.Describe(code).text);
}

}  // namespace zel::ctl
