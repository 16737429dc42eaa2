#include "simulator/fltlib/local_call.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "win32/rpc_string.h"

namespace zel::sim {

namespace {

// Packets of the connection protocol, little-endian. A fragment is as long as the server may make
// it; a request of a procedure with a pipe is short.
enum PacketType : std::uint8_t {
  kRequest = 0,
  kResponse = 2,
  kFault = 3,
  kBind = 11,
  kBindAck = 12
};
constexpr std::uint8_t kFirst = 1;
constexpr std::uint8_t kLast = 2;
constexpr std::uint16_t kLongestFragment = 5840;
constexpr std::size_t kResponseHeaderBytes = 24;

struct PacketHeader {
  std::uint8_t version;
  std::uint8_t minor_version;
  PacketType type;
  std::uint8_t flags;
  std::uint32_t data_representation;
  std::uint16_t length;
  std::uint16_t authentication_length;
  std::uint32_t call;
};
static_assert(sizeof(PacketHeader) == 16);

struct BindPacket {
  PacketHeader header;
  std::uint16_t longest_sent;
  std::uint16_t longest_received;
  std::uint32_t group;
  std::uint32_t contexts;  // one, and three bytes of padding
  std::uint16_t context;
  std::uint16_t transfer_syntaxes;
  RPC_SYNTAX_IDENTIFIER interface_id;
  RPC_SYNTAX_IDENTIFIER transfer_syntax;
};
static_assert(sizeof(BindPacket) == 72);

struct RequestHeader {
  PacketHeader header;
  std::uint32_t bytes;
  std::uint16_t context;
  std::uint16_t number;
};
static_assert(sizeof(RequestHeader) == kResponseHeaderBytes);

PacketHeader HeaderOf(PacketType type, std::size_t length) {
  return {.version = 5,
          .minor_version = 0,
          .type = type,
          .flags = kFirst | kLast,
          .data_representation = 0x10,
          .length = static_cast<std::uint16_t>(length),
          .authentication_length = 0,
          .call = 1};
}

// What the protocol has numbers of its own for, of what a service raises; others go as they are.
struct Fault {
  std::uint32_t number;
  std::uint32_t status;
};
constexpr Fault kFaults[] = {
    {0x1C010002, RPC_S_PROCNUM_OUT_OF_RANGE}, {0x1C010003, RPC_S_UNKNOWN_IF},
    {0x1C010014, RPC_S_SERVER_TOO_BUSY},      {0x1C000015, RPC_X_PIPE_CLOSED},
    {0x1C000016, RPC_X_WRONG_PIPE_ORDER},     {0x1C000017, RPC_X_PIPE_DISCIPLINE_ERROR},
    {0x1C00001B, ERROR_NOT_ENOUGH_MEMORY},
};

std::uint32_t StatusOfFault(std::uint32_t number) {
  const auto* const found = std::ranges::find(kFaults, number, &Fault::number);
  return found != std::end(kFaults) ? found->status : number;
}

// One part of a string binding.
class Part {
 public:
  RPC_WSTR* put() { return text_.put(); }
  std::wstring_view text() const { return reinterpret_cast<const wchar_t*>(text_.get()); }

 private:
  UniqueRpcString text_;
};

}  // namespace

std::optional<std::wstring> LocalEndpoint(RPC_BINDING_HANDLE binding,
                                          const RPC_CLIENT_INTERFACE& client) {
  unsigned long level = 0;
  if (::RpcBindingInqAuthInfoW(binding, nullptr, &level, nullptr, nullptr, nullptr) == RPC_S_OK) {
    return std::nullopt;
  }
  UniqueRpcString whole;
  Part sequence;
  Part endpoint;
  if (::RpcEpResolveBinding(binding, const_cast<RPC_CLIENT_INTERFACE*>(&client)) != RPC_S_OK ||
      ::RpcBindingToStringBindingW(binding, whole.put()) != RPC_S_OK ||
      ::RpcStringBindingParseW(whole.get(), nullptr, sequence.put(), nullptr, endpoint.put(),
                               nullptr) != RPC_S_OK ||
      sequence.text() != L"ncalrpc") {
    return std::nullopt;
  }
  return std::wstring(endpoint.text());
}

std::uint32_t LocalCall::Make(const std::wstring& endpoint, const RPC_CLIENT_INTERFACE& client,
                              unsigned number, std::span<const std::byte> request) {
  std::uint32_t status = Connect(endpoint);
  if (status == 0) status = Bind(client);
  if (status != 0) return status;
  std::vector<std::byte> packet(sizeof(RequestHeader) + request.size());
  const RequestHeader header = {.header = HeaderOf(kRequest, packet.size()),
                                .bytes = static_cast<std::uint32_t>(request.size()),
                                .context = 0,
                                .number = static_cast<std::uint16_t>(number)};
  std::memcpy(packet.data(), &header, sizeof header);
  std::ranges::copy(request, packet.begin() + sizeof header);
  return Send(packet);
}

std::uint32_t LocalCall::Connect(const std::wstring& endpoint) {
  constexpr DWORD kPatienceMs = 5000;  // of a server that has as many connections as it takes
  const std::wstring name = L"\\\\.\\pipe\\lrpc\\" + endpoint;
  do {
    connection_.reset(::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  } while (!connection_ && ::GetLastError() == ERROR_PIPE_BUSY &&
           ::WaitNamedPipeW(name.c_str(), kPatienceMs));
  return connection_ ? RPC_S_OK : RPC_S_SERVER_UNAVAILABLE;
}

std::uint32_t LocalCall::Bind(const RPC_CLIENT_INTERFACE& client) {
  const BindPacket packet = {.header = HeaderOf(kBind, sizeof(BindPacket)),
                             .longest_sent = kLongestFragment,
                             .longest_received = kLongestFragment,
                             .group = 0,
                             .contexts = 1,
                             .context = 0,
                             .transfer_syntaxes = 1,
                             .interface_id = client.InterfaceId,
                             .transfer_syntax = client.TransferSyntax};
  std::uint32_t status = Send(std::as_bytes(std::span(&packet, 1)));
  if (status == 0) status = ReceivePacket();
  if (status != 0) return status;
  PacketHeader answer;
  std::memcpy(&answer, fragment_.data(), sizeof answer);
  at_ = fragment_.size();
  return answer.type == kBindAck ? RPC_S_OK : RPC_S_PROTOCOL_ERROR;
}

std::uint32_t LocalCall::Read(std::span<std::byte> buffer) {
  while (!buffer.empty()) {
    if (at_ == fragment_.size()) {
      if (was_last_) return kBadStubData;
      if (const std::uint32_t status = ReceiveFragment()) return status;
    }
    const std::size_t count = std::min(buffer.size(), fragment_.size() - at_);
    std::memcpy(buffer.data(), fragment_.data() + at_, count);
    at_ += count;
    buffer = buffer.subspan(count);
  }
  return RPC_S_OK;
}

std::uint32_t LocalCall::ReceiveFragment() {
  if (const std::uint32_t status = ReceivePacket()) return status;
  PacketHeader header;
  std::memcpy(&header, fragment_.data(), sizeof header);
  if (fragment_.size() < kResponseHeaderBytes) return RPC_S_PROTOCOL_ERROR;
  at_ = kResponseHeaderBytes;
  was_last_ = (header.flags & kLast) != 0;
  if (header.type == kResponse) return RPC_S_OK;
  std::uint32_t fault = 0;
  if (header.type != kFault || fragment_.size() < at_ + sizeof fault) return RPC_S_PROTOCOL_ERROR;
  std::memcpy(&fault, fragment_.data() + at_, sizeof fault);
  return StatusOfFault(fault);
}

std::uint32_t LocalCall::Send(std::span<const std::byte> packet) {
  DWORD written = 0;
  return ::WriteFile(connection_.get(), packet.data(), static_cast<DWORD>(packet.size()), &written,
                     nullptr)
             ? RPC_S_OK
             : RPC_S_CALL_FAILED;
}

std::uint32_t LocalCall::ReceivePacket() {
  fragment_.resize(sizeof(PacketHeader));
  if (const std::uint32_t status = ReceiveAll(fragment_)) return status;
  PacketHeader header;
  std::memcpy(&header, fragment_.data(), sizeof header);
  if (header.length < sizeof header) return RPC_S_PROTOCOL_ERROR;
  fragment_.resize(header.length);
  return ReceiveAll(std::span(fragment_).subspan(sizeof header));
}

// A connection that breaks is a server that has died or has been ended.
std::uint32_t LocalCall::ReceiveAll(std::span<std::byte> buffer) {
  while (!buffer.empty()) {
    DWORD read = 0;
    if (!::ReadFile(connection_.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read,
                    nullptr) ||
        read == 0) {
      return RPC_S_CALL_FAILED;
    }
    buffer = buffer.subspan(read);
  }
  return RPC_S_OK;
}

}  // namespace zel::sim
