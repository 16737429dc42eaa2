#include <optional>

#include "simulator/channels.h"
#include "simulator/servers.h"

namespace zel::sim {

namespace {

const Bytes kGreeting(1);

// Overlapped operations on the port's pipe, one after the other.
class Operation {
 public:
  explicit Operation(HANDLE pipe)
      : pipe_(pipe), event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    overlapped_.hEvent = event_.get();
  }
  // The kernel must not write into a structure that is gone.
  ~Operation() {
    DWORD size;
    // One that failed at once still looks as if it went on, but there is nothing to cancel.
    if (!HasOverlappedIoCompleted(&overlapped_) && ::CancelIoEx(pipe_, &overlapped_)) {
      ::GetOverlappedResult(pipe_, &overlapped_, &size, TRUE);
    }
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  [[nodiscard]] OVERLAPPED* get() { return &overlapped_; }
  [[nodiscard]] HANDLE event() const { return event_.get(); }
  [[nodiscard]] bool Succeeded() {
    DWORD size;
    return ::GetOverlappedResult(pipe_, &overlapped_, &size, FALSE);
  }

 private:
  HANDLE pipe_;
  UniqueEvent event_;
  OVERLAPPED overlapped_ = {};
};

class Port {
 public:
  Port(Driver& driver, HANDLE pipe) : driver_(driver), pipe_(pipe) {}

  // True with a service connected, false when the driver is to stop.
  bool WaitForService();
  // Hands messages over until the service goes or the driver is to stop.
  void Serve();

 private:
  bool HandOver(const Bytes& message, Operation& write);

  Driver& driver_;
  HANDLE pipe_;
};

bool Port::WaitForService() {
  for (;;) {
    Operation connect(pipe_);
    if (::ConnectNamedPipe(pipe_, connect.get())) return true;
    const DWORD error = ::GetLastError();
    if (error == ERROR_PIPE_CONNECTED) return true;
    if (error == ERROR_IO_PENDING) {
      const HANDLE events[] = {driver_.stop_event(), connect.event()};
      return ::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
    }
    // One that came and went already.
    ::DisconnectNamedPipe(pipe_);
  }
}

void Port::Serve() {
  Operation write(pipe_);
  // The service writes nothing: this read ends when it goes.
  Operation watch(pipe_);
  char byte;
  if (!::ReadFile(pipe_, &byte, 1, nullptr, watch.get()) && ::GetLastError() != ERROR_IO_PENDING) {
    return;
  }
  if (!HandOver(kGreeting, write)) return;
  const HANDLE events[] = {driver_.stop_event(), watch.event(), driver_.changed_event()};
  for (;;) {
    DWORD wait_ms = 0;
    if (const std::optional<Bytes> message = driver_.Offer(wait_ms)) {
      if (!HandOver(*message, write)) return;
      driver_.HandedOver();
      continue;
    }
    const DWORD signalled = ::WaitForMultipleObjects(3, events, FALSE, wait_ms);
    if (signalled == WAIT_OBJECT_0 || signalled == WAIT_OBJECT_0 + 1) return;
  }
}

// Returns when a read has taken the message, false when none will.
bool Port::HandOver(const Bytes& message, Operation& write) {
  if (!::WriteFile(pipe_, message.data(), static_cast<DWORD>(message.size()), nullptr,
                   write.get()) &&
      ::GetLastError() != ERROR_IO_PENDING) {
    return false;
  }
  const HANDLE events[] = {driver_.stop_event(), write.event()};
  return ::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1 &&
         write.Succeeded();
}

}  // namespace

UniqueFile MakePort() {
  return UniqueFile(::CreateNamedPipeW(
      kPortPipe, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS, 1, 0, 0, 0, nullptr));
}

void RunPort(Driver& driver, const UniqueFile& pipe) {
  Port port(driver, pipe.get());
  while (port.WaitForService()) {
    driver.Connect();
    port.Serve();
    driver.Disconnect();
    ::DisconnectNamedPipe(pipe.get());
  }
}

}  // namespace zel::sim
