#include "simulator/control_client.h"

#include "simulator/channels.h"

namespace zel::sim {

namespace {

constexpr DWORD kConnectLimitMs = 10'000;

UniqueFile Connect() {
  for (;;) {
    UniqueFile pipe(::CreateFileW(kControlPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    if (pipe) {
      DWORD mode = PIPE_READMODE_MESSAGE;
      ::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr);
      return pipe;
    }
    // Every instance is taken until the server has made the next one.
    if (::GetLastError() != ERROR_PIPE_BUSY) return {};
    if (!::WaitNamedPipeW(kControlPipe, kConnectLimitMs)) return {};
  }
}

}  // namespace

ControlClient::ControlClient() : pipe_(Connect()), answer_(kMaxLineBytes, '\0') {}

std::optional<std::string> ControlClient::Tell(std::string_view order) {
  const LockGuard guard(lock_);
  DWORD size = 0;
  if (!::WriteFile(pipe_.get(), order.data(), static_cast<DWORD>(order.size()), &size, nullptr) ||
      !::ReadFile(pipe_.get(), answer_.data(), kMaxLineBytes, &size, nullptr)) {
    return std::nullopt;
  }
  return answer_.substr(0, size);
}

}  // namespace zel::sim
