
#include <windows.h>

// After <windows.h>:
#include <fltuser.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "driver/driver_session.h"
#include "driver/message_handler.h"
#include "errors/error_info.h"
#include "logging/log_message.h"

namespace zel {

namespace {

constexpr std::size_t kReceiveBufferBytes = 65'536;
constexpr DWORD kPauseMs = 1'000;
// For a cancelled read to end, and for one that could not be cancelled because it has ended: the
// system may be about to tell so.
constexpr DWORD kCancelledLimitMs = 1'000;
constexpr DWORD kEndedLimitMs = 100;

class MessageReader {
 public:
  // `received`: manual reset, for this reader alone.
  MessageReader(const DriverSession& session, ReaderState& state, HANDLE probe, HANDLE received)
      : session_(session), state_(state), probe_(probe), received_(received) {}

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

  void HandleReceived() {
    HandleDriverMessage(
        std::span(buffer_).first(std::min<std::size_t>(overlapped_.InternalHigh, buffer_.size())));
  }

  const DriverSession& session_;
  ReaderState& state_;
  const HANDLE probe_;     // set for every probe; resets itself
  const HANDLE received_;  // set from the end of a read until the beginning of the next
  bool is_reading_ = false;
  bool last_read_was_refused_ = false;
  OVERLAPPED overlapped_;
  // Not cleared between reads: only what a read has transferred is ever looked at.
  alignas(FILTER_MESSAGE_HEADER) std::array<std::byte, kReceiveBufferBytes> buffer_;
};

bool MessageReader::BeginRead() {
  TakeReadBack();  // if the wait for it failed
  ::ResetEvent(received_);
  overlapped_ = {};
  overlapped_.hEvent = received_;
  state_.BeginRead();
  const HRESULT result = ::FilterGetMessage(
      session_.port->get(), reinterpret_cast<FILTER_MESSAGE_HEADER*>(buffer_.data()),
      static_cast<DWORD>(buffer_.size()), &overlapped_);
  is_reading_ = result == HRESULT_FROM_WIN32(ERROR_IO_PENDING);
  const bool refused_before = std::exchange(last_read_was_refused_, !is_reading_);
  if (is_reading_) return true;
  state_.EndRead();
  if (!refused_before) {
    LogMessage(kDriverCommError, L"Unexpected result 0x%08x from FilterGetMessage\n", result);
  }
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
    HandleReceived();
  } else {
    const ErrorInfo error(static_cast<std::uint32_t>(overlapped_.Internal));
    LogMessage(kDriverCommError, L"FilterGetMessage failed: %hs\n", error.text());
  }
  state_.EndRead();
}

void MessageReader::TakeReadBack() {
  if (!std::exchange(is_reading_, false)) return;
  const bool cancelled = ::CancelIoEx(session_.port->get(), &overlapped_);
  const DWORD wait =
      ::WaitForSingleObject(received_, cancelled ? kCancelledLimitMs : kEndedLimitMs);
  if (wait == WAIT_OBJECT_0 && overlapped_.Internal == 0) HandleReceived();
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

unsigned __stdcall DriverMessageThread(void* start_information) {
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
  MessageReader(session, session.readers.at(reader), probe.get(), received.get()).Run();
  LogMessage(kDriverCommDebug, L"Service thread shutdown\n");
  return 0;
}

}  // namespace zel
