#include "driver/message_threads.h"

#include <memory>
#include <vector>

#include "driver/driver_session.h"
#include "logging/log_message.h"
#include "win32/critical_section.h"
#include "win32/shared_slot.h"
#include "win32/thread.h"

namespace zel {

namespace {

constexpr unsigned kStackReservation = 1024 * 1024;

// Held while the threads are waited for, so before every lock that they take.
CriticalSection threadsLock;

// Never destroyed: the threads may outlive the process's main thread.
std::vector<UniqueThread>& Threads() ZEL_REQUIRES(threadsLock) {
  static std::vector<UniqueThread>& threads = *new std::vector<UniqueThread>;
  return threads;
}

SharedSlot<DriverSession> currentSession;

// Null for a failure, whose code is then in `error`. The code may be 0: the start then goes on.
UniqueEvent MakeEvent(LogFormat<> failure, std::uint32_t& error) {
  UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) {
    error = ::GetLastError();
    LogMessage(kGeneralError, failure);
  }
  return event;
}

std::uint32_t MakeEvents(DriverSession& session) {
  std::uint32_t error = ERROR_SUCCESS;
  session.serviceThreadStartEvent = MakeEvent(L"Create serviceThreadStartEvent failed\n", error);
  session.serviceThreadShutdownEvent =
      MakeEvent(L"Create serviceThreadShutdownEvent failed\n", error);
  return error;
}

// Makes the threads as far as it can.
std::uint32_t MakeThreads(DriverSession& session) ZEL_REQUIRES(threadsLock) {
  while (Threads().size() < kMessageThreads) {
    UniqueThread thread = StartThread(DriverMessageThread, &session, kStackReservation);
    if (!thread) {
      const std::uint32_t error = ::GetLastError();
      LogMessage(kDriverCommError, L"CreateThread failed %u\n", error);
      return error;
    }
    Threads().push_back(std::move(thread));
  }
  return ERROR_SUCCESS;
}

std::uint32_t MakeSession() ZEL_EXCLUDES(threadsLock) {
  const LockGuard guard(threadsLock);
  if (driverThreadsStopping) return ERROR_SHUTDOWN_IN_PROGRESS;
  const auto session = std::make_shared<DriverSession>();
  session->port = CurrentDriverPort();
  if (const std::uint32_t error = MakeEvents(*session); error != ERROR_SUCCESS) return error;
  session->slots = OpenReceiveSlots();
  currentSession.Set(session);
  if (const std::uint32_t error = MakeThreads(*session); error != ERROR_SUCCESS) return error;
  ::SetEvent(session->serviceThreadStartEvent.get());
  return ERROR_SUCCESS;
}

void WaitForThreads() ZEL_REQUIRES(threadsLock) {
  std::vector<HANDLE> handles;
  for (const UniqueThread& thread : Threads()) handles.push_back(thread.get());
  if (!handles.empty()) {
    ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), TRUE, INFINITE);
  }
  Threads().clear();
}

}  // namespace

std::uint32_t StartDriverThreads() {
  const std::uint32_t error = MakeSession();
  if (error != ERROR_SUCCESS) StopDriverThreads();
  return error;
}

void StopDriverThreads() ZEL_EXCLUDES(threadsLock) {
  driverThreadsStopping = true;
  const LockGuard guard(threadsLock);
  const std::shared_ptr<DriverSession> session = currentSession.Get();
  if (session != nullptr) {
    ::SetEvent(session->serviceThreadStartEvent.get());
    ::SetEvent(session->serviceThreadShutdownEvent.get());
    WaitForThreads();
    session->port.reset();  // a waiter may hold the session a moment longer
    currentSession.Set(nullptr);
  }
  CloseDriverPort();
  // After the port, which may still have a read that could not be taken back.
  if (session != nullptr) session->slots.Close();
}

bool WaitForDriverStop(DWORD timeout_ms) {
  const std::shared_ptr<const DriverSession> session = currentSession.Get();
  return session == nullptr || ::WaitForSingleObject(session->serviceThreadShutdownEvent.get(),
                                                     timeout_ms) != WAIT_TIMEOUT;
}

std::shared_ptr<DriverSession> CurrentDriverSession() {
  return currentSession.Get();
}

ReaderBarrier RaiseReaderBarrier() {
  const std::shared_ptr<DriverSession> session = currentSession.Get();
  if (session == nullptr) return {nullptr, {}};
  return {std::shared_ptr<ReaderStates>(session, &session->readers),
          [&](std::size_t reader) { ::SetEvent(session->probe_events[reader].get()); }};
}

}  // namespace zel
