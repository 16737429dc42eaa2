#include <windows.h>

// After <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "driver/driver_session.h"
#include "driver/message_handler.h"
#include "errors/error_info.h"
#include "logging/log_message.h"

namespace zel {

namespace {

constexpr DWORD kPauseMs = 1'000;
// For a read that could not be cancelled because it has ended: the system may be about to tell so.
constexpr DWORD kEndedLimitMs = 100;

class MessageReader {
 public:
  // `received`: manual reset, for this reader alone.
  MessageReader(const DriverSession& session, ReaderState& state, ReceiveSlot& slot, HANDLE probe,
                HANDLE received)
      : session_(session), state_(state), slot_(slot), probe_(probe), received_(received) {
    ClaimSlot(slot_, ThisProcess());
  }

  void Run() {
    while (!driverThreadsStopping) {
      if (BeginRead() && WaitForRead()) FinishRead();
    }
    TakeReadBack();
  }

 private:
  // False when there is nothing to wait for; it has then waited a second, or for the stop.
  bool BeginRead();

  // True when the read is over.
  [[nodiscard]] bool WaitForRead();

  void FinishRead();

  // Takes a read that nobody waits for any more back from the port. When the driver was faster its
  // message has left the driver's queue and is handled: the driver will not send it again.
  void TakeReadBack();

  void HandleReceived(std::size_t bytes) {
    HandleDriverMessage(std::span(slot_.Message).first(std::min(bytes, kReceiveBufferBytes)));
  }

  // What the message tells is recorded: the next start of the service need not handle it again.
  void EndRead() {
    MarkEmpty(slot_);
    state_.EndRead();
  }

  const DriverSession& session_;
  ReaderState& state_;
  ReceiveSlot& slot_;
  const HANDLE probe_;     // set for every probe; resets itself
  const HANDLE received_;  // set from the end of a read until the beginning of the next
  bool is_reading_ = false;
  bool last_read_was_refused_ = false;
  OVERLAPPED overlapped_;
};

static_assert(offsetof(ReceiveSlot, Message) % alignof(FILTER_MESSAGE_HEADER) == 0);

bool MessageReader::BeginRead() {
  TakeReadBack();  // if the wait for it failed
  ::ResetEvent(received_);
  overlapped_ = {};
  overlapped_.hEvent = received_;
  PrepareForRead(slot_);
  state_.BeginRead();
  const HRESULT result = ::FilterGetMessage(session_.port->get(),
                                            reinterpret_cast<FILTER_MESSAGE_HEADER*>(slot_.Message),
                                            kReceiveBufferBytes, &overlapped_);
  is_reading_ = result == HRESULT_FROM_WIN32(ERROR_IO_PENDING);
  const bool refused_before = std::exchange(last_read_was_refused_, !is_reading_);
  if (is_reading_) return true;
  if (!refused_before) {
    LogMessage(kDriverCommError, L"Unexpected result 0x%08x from FilterGetMessage\n", result);
  }
  // Unexpected, but its message has left the driver's queue.
  if (result == S_OK && HoldsMessage(slot_)) HandleReceived(sizeof(DriverMessage));
  EndRead();
  ::WaitForSingleObject(session_.serviceThreadShutdownEvent.get(), kPauseMs);
  return false;
}

bool MessageReader::WaitForRead() {
  const HANDLE handles[] = {session_.serviceThreadShutdownEvent.get(), received_, probe_};
  for (;;) {
    const DWORD result = ::WaitForMultipleObjects(3, handles, FALSE, INFINITE);
    switch (result) {
      case WAIT_OBJECT_0:
        LogMessage(kDriverCommDebug, L"Service thread shutdown requested\n");
        return false;
      case WAIT_OBJECT_0 + 1:
        return true;
      case WAIT_OBJECT_0 + 2:
        // The system ends a read in this thread before the thread goes on.
        state_.Acknowledge([this] { return ::WaitForSingleObject(received_, 0) == WAIT_OBJECT_0; });
        break;
      default:
        LogMessage(kDriverCommError, L"Unexpected handle condition (%u)\n", result);
        return false;
    }
  }
}

void MessageReader::FinishRead() {
  is_reading_ = false;
  if (overlapped_.Internal == 0) {
    HandleReceived(overlapped_.InternalHigh);
  } else {
    const ErrorInfo error(static_cast<std::uint32_t>(overlapped_.Internal));
    LogMessage(kDriverCommError, L"FilterGetMessage failed: %hs\n", error.text());
  }
  EndRead();
}

void MessageReader::TakeReadBack() {
  if (!std::exchange(is_reading_, false)) return;
  const bool cancelled = ::CancelIoEx(session_.port->get(), &overlapped_);
  // A cancelled read is the system's until it has ended.
  const DWORD wait = ::WaitForSingleObject(received_, cancelled ? INFINITE : kEndedLimitMs);
  // Else the port may still put a message into the slot, which then tells the next start of it.
  if (wait == WAIT_OBJECT_0) {
    if (overlapped_.Internal == 0) HandleReceived(overlapped_.InternalHigh);
    MarkEmpty(slot_);
  }
  state_.EndRead();
}

bool MakeEvent(UniqueEvent& event, BOOL manual_reset) {
  event.reset(::CreateEventW(nullptr, manual_reset, FALSE, nullptr));
  if (event) return true;
  LogMessage(kDriverCommError, L"Failed to allocate an event: %u\n", ::GetLastError());
  return false;
}

bool WaitForStart(const DriverSession& session) {
  if (::WaitForSingleObject(session.serviceThreadStartEvent.get(), INFINITE) == WAIT_OBJECT_0) {
    return true;
  }
  LogMessage(kDriverCommError, L"Startup event wait failed %u\n", ::GetLastError());
  return false;
}

}  // namespace

unsigned __stdcall DriverMessageThread(void* start_information) noexcept {
  LogMessage(kDriverCommDebug, L"Service thread started\n");
  if (start_information == nullptr) {
    LogMessage(kDriverCommError, L"Invalid start info, terminating\n");
    return 0;
  }
  auto& session = *static_cast<DriverSession*>(start_information);
  const std::size_t reader = session.readers_taken++;
  UniqueEvent& probe = session.probe_events.at(reader);
  UniqueEvent received;
  if (!MakeEvent(probe, FALSE) || !MakeEvent(received, TRUE)) return 0;
  if (!WaitForStart(session)) return 0;
  MessageReader(session, session.readers.at(reader), session.slots.at(reader), probe.get(),
                received.get())
      .Run();
  LogMessage(kDriverCommDebug, L"Service thread shutdown\n");
  return 0;
}

}  // namespace zel
