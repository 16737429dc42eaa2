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

enum class Advice { kPlace, kEndpoint, kRunning, kRegistered, kRights, kPackage, kLog, kHanging };

struct RpcStatus {
  std::uint32_t code;
  const char* name;  // the table of winerror.h names has none of these
  Advice advice;
};
constexpr RpcStatus kRpcStatuses[] = {
    {5, "ERROR_ACCESS_DENIED", Advice::kRights},
    {1700, "RPC_S_INVALID_STRING_BINDING", Advice::kPlace},
    {1703, "RPC_S_PROTSEQ_NOT_SUPPORTED", Advice::kPlace},
    {1704, "RPC_S_INVALID_RPC_PROTSEQ", Advice::kPlace},
    {1706, "RPC_S_INVALID_ENDPOINT_FORMAT", Advice::kPlace},
    {1707, "RPC_S_INVALID_NET_ADDR", Advice::kPlace},
    {1715, "RPC_S_NOT_LISTENING", Advice::kRegistered},
    {1717, "RPC_S_UNKNOWN_IF", Advice::kEndpoint},
    {1722, "RPC_S_SERVER_UNAVAILABLE", Advice::kRunning},
    {1723, "RPC_S_SERVER_TOO_BUSY", Advice::kRegistered},
    {1726, "RPC_S_CALL_FAILED", Advice::kLog},
    {1727, "RPC_S_CALL_FAILED_DNE", Advice::kLog},
    {1728, "RPC_S_PROTOCOL_ERROR", Advice::kEndpoint},
    {1747, "RPC_S_UNKNOWN_AUTHN_SERVICE", Advice::kPackage},
    {1753, "EPT_S_NOT_REGISTERED", Advice::kRegistered},
    {1783, "RPC_X_BAD_STUB_DATA", Advice::kLog},
    {1818, "RPC_S_CALL_CANCELED", Advice::kHanging},
    {1825, "RPC_S_SEC_PKG_ERROR", Advice::kPackage},
};

// Endpoints change with every start of the service.
std::string EndpointAdvice(const Request& request) {
  return request.endpoint.empty() ? ""
                                  : "; " + request.endpoint +
                                        " may be another program's by now, without --endpoint the "
                                        "machine is asked for the service's own";
}

std::string OtherWay(const Request& request) {
  switch (request.authentication.value_or(Authentication::kNone)) {
    case Authentication::kNone:
      return "; --auth ntlm tells who asks";
    case Authentication::kNtlm:
      return "; --auth none asks without telling who, where its policy lets that in";
    case Authentication::kNtlmOrNone:
      break;
  }
  return "";
}

bool AsksByFileSharing(const Request& request) {
  return request.protseq == "ncacn_np";
}

// What lies between two machines depends on the way.
std::string WayThere(const Request& request) {
  return ", the name, and that the firewall lets calls through (" +
         std::string(AsksByFileSharing(request) ? "file sharing, TCP port 445"
                                                : "TCP port 135 and the service's own") +
         ")";
}

// Who does not authenticate is refused by an endpoint mapper before the service is asked, and
// whoever asks it over TCP does not.
std::string WayAroundTheMapper(const Request& request) {
  if (AsksByFileSharing(request) || !request.endpoint.empty()) return "";
  return "; --protseq ncacn_np asks by file sharing, where its endpoint mapper refuses strangers";
}

std::string AdviceText(Advice advice, const Request& request) {
  const bool is_here = request.server.empty();
  std::string running = is_here ? "check" : "check there";
  running.append(
      " that ZelService is running (sc query ZelService; while it is START_PENDING its "
      "log tells what it waits for)");
  switch (advice) {
    case Advice::kPlace:
      return "check --server, --protseq and --endpoint";
    case Advice::kEndpoint:
      return running + EndpointAdvice(request);
    case Advice::kRunning:
      return running + (is_here ? "" : WayThere(request)) + EndpointAdvice(request);
    case Advice::kRegistered:
      return running;
    case Advice::kRights:
      return is_here ? "run it as an administrator"
                     : "check that the account is one that " + request.server + " lets in" +
                           OtherWay(request) + WayAroundTheMapper(request);
    case Advice::kPackage:
      return "check that NTLM is allowed here and there" + OtherWay(request);
    case Advice::kLog:
      return "the service may have ended meanwhile: check sc query ZelService and its log";
    case Advice::kHanging:
      break;
  }
  return "it did not answer in time (--timeout): look whether it hangs, and at its log";
}

Failure NoAnswer(Machine& machine, const Request& request, std::uint32_t rpc_status) {
  const auto* const known = std::ranges::find(kRpcStatuses, rpc_status, &RpcStatus::code);
  const bool is_known = known != std::end(kRpcStatuses);
  const ErrorWords words = machine.Describe(rpc_status);
  return {.exit_code = ExitCode::kNoService,
          .code = rpc_status,
          .name = is_known ? known->name : words.name,
          .message = "no answer from the service on " + Place(request) + ": " + words.text + "; " +
                     (is_known ? AdviceText(known->advice, request) : "check the service's log")};
}

// The service passes the HRESULT of a command on that the driver did not take; its own answers are
// Win32 codes.
bool IsDriversAnswer(std::uint32_t code) {
  return code >= 0x80000000;
}

}  // namespace

MaybeFailure CheckAnswer(Machine& machine, const Request& request, const Answer& answer,
                         const std::string& otherwise, std::initializer_list<KnownAnswer> known) {
  if (answer.ok()) return std::nullopt;
  if (answer.rpc_status != 0) return NoAnswer(machine, request, answer.rpc_status);
  const auto* const found = std::ranges::find(known, answer.code, &KnownAnswer::code);
  if (found != known.end()) return FromCode(machine, answer.code, found->message);
  if (answer.code == kShutdownInProgress) {
    return FromCode(machine, answer.code, "the service is stopping; try again when it runs");
  }
  auto failure = CheckSystem(machine, answer.code, otherwise);
  if (IsDriversAnswer(answer.code)) failure->message.append("; ").append(kDriverAdvice);
  return failure;
}

MaybeFailure CheckSystem(Machine& machine, std::uint32_t code, const std::string& what) {
  if (code == 0) return std::nullopt;
  return FromCode(machine, code, what + ": " + machine.Describe(code).text);
}

}  // namespace zel::ctl
