// A call over ncalrpc whose answer is read as it arrives: Wine's runtime, whose ncalrpc is a pipe
// with the connection protocol of MS-RPC, gathers a whole answer in memory first. Test bench only.
//
// Errors: RPC statuses, 0 for success.
#pragma once

#include <rpc.h>
#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/fltlib/pipe_answer.h"
#include "win32/handles.h"

namespace zel::sim {

// The endpoint of a binding that names one of this machine over ncalrpc, or finds one by the
// endpoint mapper, and tells nobody who asks; none of any other.
[[nodiscard]] std::optional<std::wstring> LocalEndpoint(RPC_BINDING_HANDLE binding,
                                                        const RPC_CLIENT_INTERFACE& client);

// One call on a connection of its own, which ends with the object: an answer that is not read to
// its end is given up.
class LocalCall : public AnswerBytes {
 public:
  LocalCall() = default;
  LocalCall(const LocalCall&) = delete;
  LocalCall& operator=(const LocalCall&) = delete;

  // Connects, binds to the interface and sends the request.
  [[nodiscard]] std::uint32_t Make(const std::wstring& endpoint, const RPC_CLIENT_INTERFACE& client,
                                   unsigned number, std::span<const std::byte> request);

  std::uint32_t Read(std::span<std::byte> buffer) override;
  bool at_end() override { return at_ == fragment_.size() && was_last_; }

 private:
  [[nodiscard]] std::uint32_t Connect(const std::wstring& endpoint);
  [[nodiscard]] std::uint32_t Bind(const RPC_CLIENT_INTERFACE& client);
  [[nodiscard]] std::uint32_t Send(std::span<const std::byte> packet);
  [[nodiscard]] std::uint32_t ReceivePacket();
  [[nodiscard]] std::uint32_t ReceiveAll(std::span<std::byte> buffer);
  [[nodiscard]] std::uint32_t ReceiveFragment();

  UniqueFile connection_;
  std::vector<std::byte> fragment_;  // the packet that was received last, header included
  std::size_t at_ = 0;               // what of it has been read
  bool was_last_ = false;
};

}  // namespace zel::sim
