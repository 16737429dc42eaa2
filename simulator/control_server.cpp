#include <string>
#include <thread>
#include <utility>

#include "simulator/channels.h"
#include "simulator/servers.h"

namespace zel::sim {

namespace {

UniqueFile MakePipe(DWORD flags) {
  return UniqueFile(
      ::CreateNamedPipeW(kControlPipe, PIPE_ACCESS_DUPLEX | flags,
                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                         PIPE_UNLIMITED_INSTANCES, kMaxLineBytes, kMaxLineBytes, 0, nullptr));
}

void Serve(Driver& driver, const UniqueFile& pipe) {
  std::string line(kMaxLineBytes, '\0');
  DWORD size = 0;
  while (::ReadFile(pipe.get(), line.data(), kMaxLineBytes, &size, nullptr)) {
    const std::string answer = driver.Tell(std::string_view(line).substr(0, size));
    const auto answer_size = static_cast<DWORD>(answer.size());
    if (!::WriteFile(pipe.get(), answer.data(), answer_size, &size, nullptr)) return;
  }
}

// Always leaves one more instance to connect to.
void Accept(Driver& driver, UniqueFile pipe) {
  while (pipe) {
    if (!::ConnectNamedPipe(pipe.get(), nullptr) && ::GetLastError() != ERROR_PIPE_CONNECTED) {
      ::DisconnectNamedPipe(pipe.get());
      continue;
    }
    UniqueFile next = MakePipe(0);
    std::thread([&driver, connected = std::move(pipe)] { Serve(driver, connected); }).detach();
    pipe = std::move(next);
  }
}

}  // namespace

DWORD StartControlChannel(Driver& driver) {
  UniqueFile pipe = MakePipe(FILE_FLAG_FIRST_PIPE_INSTANCE);
  if (!pipe) return ::GetLastError();
  std::thread(Accept, std::ref(driver), std::move(pipe)).detach();
  return ERROR_SUCCESS;
}

}  // namespace zel::sim
