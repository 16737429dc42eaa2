#include <process.h>

#include <memory>
#include <string>
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

// A connection, or the one that is waited for; handed from thread to thread.
struct Connection {
  Driver& driver;
  UniqueFile pipe;
};

// Not std::thread: MinGW's, when detached, now and then loses a thread that starts while another
// ends. False when there is none to be had.
bool StartThread(unsigned(__stdcall* procedure)(void*), Connection connection) {
  auto context = std::make_unique<Connection>(std::move(connection));
  const UniqueThread thread(
      reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, 0, procedure, context.get(), 0, nullptr)));
  if (thread) static_cast<void>(context.release());
  return static_cast<bool>(thread);
}

unsigned __stdcall Serve(void* context) {
  const std::unique_ptr<Connection> self(static_cast<Connection*>(context));
  const HANDLE pipe = self->pipe.get();
  std::string line(kMaxLineBytes, '\0');
  DWORD size = 0;
  while (::ReadFile(pipe, line.data(), kMaxLineBytes, &size, nullptr)) {
    const auto [answer, stops] = self->driver.Tell(std::string_view(line).substr(0, size));
    const auto answer_size = static_cast<DWORD>(answer.size());
    const bool answered = ::WriteFile(pipe, answer.data(), answer_size, &size, nullptr);
    if (stops) ::SetEvent(self->driver.stop_event());
    if (!answered) break;
  }
  return 0;
}

// Always leaves one more instance to connect to.
unsigned __stdcall Accept(void* context) {
  const std::unique_ptr<Connection> self(static_cast<Connection*>(context));
  while (self->pipe) {
    if (!::ConnectNamedPipe(self->pipe.get(), nullptr) &&
        ::GetLastError() != ERROR_PIPE_CONNECTED) {
      ::DisconnectNamedPipe(self->pipe.get());
      continue;
    }
    UniqueFile next = MakePipe(0);
    StartThread(Serve, {self->driver, std::move(self->pipe)});
    self->pipe = std::move(next);
  }
  return 0;
}

}  // namespace

DWORD StartControlChannel(Driver& driver) {
  UniqueFile pipe = MakePipe(FILE_FLAG_FIRST_PIPE_INSTANCE);
  if (!pipe) return ::GetLastError();
  return StartThread(Accept, {driver, std::move(pipe)}) ? ERROR_SUCCESS : ERROR_NO_SYSTEM_RESOURCES;
}

}  // namespace zel::sim
