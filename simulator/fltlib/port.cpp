// The filter manager's port functions, spoken to the simulated driver. Test bench only.
//
// A port handle is the client's end of the driver's pipe, so that closing it is the caller's affair
// as it is on Windows: the outstanding reads then end with an error.
#include <windows.h>
// Behind <windows.h>.
#include <fltuser.h>

#include <string>

#include "simulator/channels.h"
#include "simulator/control_client.h"
#include "simulator/fltlib/port_reads.h"
#include "simulator/text.h"
#include "win32/handles.h"

namespace zel::sim {
namespace {

// The service is restarted while the driver still takes leave of the one before.
constexpr DWORD kBusyLimitMs = 5'000;

constexpr HRESULT kNoWaiterForReply = static_cast<HRESULT>(0x801F0020);

// Gives the driver an order: S_OK with what stands behind "ok", or what the driver refuses with.
HRESULT Ask(const std::string& order, std::string& answer) {
  ControlClient client;
  if (!client.connected()) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  answer = client.Tell(order).value_or("");
  std::uint32_t refusal = 0;
  if (answer.starts_with("refused ") && ParseNumber(std::string_view(answer).substr(8), refusal)) {
    return static_cast<HRESULT>(refusal);
  }
  if (!answer.starts_with("ok")) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  answer.erase(0, 3);
  return S_OK;
}

HRESULT OpenPipe(const std::wstring& name, UniqueFile& pipe) {
  for (bool waited = false;; waited = true) {
    pipe.reset(::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_FLAG_OVERLAPPED, nullptr));
    if (pipe) return S_OK;
    const DWORD error = ::GetLastError();
    if (error != ERROR_PIPE_BUSY) return HRESULT_FROM_WIN32(error);
    if (waited || !::WaitNamedPipeW(name.c_str(), kBusyLimitMs)) {
      return HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT);
    }
  }
}

// Makes one overlapped read by `read` and waits for its end.
template <class Read>
HRESULT ReadAndWait(HANDLE port, Read read) {
  const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED overlapped = {};
  overlapped.hEvent = event.get();
  const HRESULT result = read(&overlapped);
  if (result != HRESULT_FROM_WIN32(ERROR_IO_PENDING)) return result;
  DWORD received = 0;
  if (!::GetOverlappedResult(port, &overlapped, &received, TRUE)) {
    return HRESULT_FROM_WIN32(::GetLastError());
  }
  EndPortRead(event.get());
  return S_OK;
}

// The driver knows of the connection when it has greeted.
HRESULT AwaitGreeting(HANDLE port) {
  char greeting;
  return ReadAndWait(port, [&](OVERLAPPED* overlapped) {
    const bool read = ::ReadFile(port, &greeting, sizeof greeting, nullptr, overlapped);
    return read ? S_OK : HRESULT_FROM_WIN32(::GetLastError());
  });
}

// Without an OVERLAPPED the call lasts until there is a message.
HRESULT GetMessageAndWait(HANDLE port, void* buffer, DWORD size) {
  return ReadAndWait(
      port, [&](OVERLAPPED* overlapped) { return BeginPortRead(port, buffer, size, overlapped); });
}

HRESULT Connect(const wchar_t* name, HANDLE* port) {
  std::string answer;
  HRESULT result = Ask("connect", answer);
  if (FAILED(result)) return result;
  UniqueFile pipe;
  result = OpenPipe(std::wstring(kPipePrefix) + name, pipe);
  if (FAILED(result)) return result;
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr)) {
    return HRESULT_FROM_WIN32(::GetLastError());
  }
  result = AwaitGreeting(pipe.get());
  if (SUCCEEDED(result)) result = BeginPortReads();
  if (SUCCEEDED(result)) *port = pipe.release();
  return result;
}

HRESULT Send(HANDLE port, const void* in, DWORD in_size, void* out, DWORD out_size,
             DWORD* returned) {
  // The command travels beside the port, and would get through on a handle that is closed.
  if (!::PeekNamedPipe(port, nullptr, 0, nullptr, nullptr, nullptr)) {
    return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  }
  const auto* const first = static_cast<const std::byte*>(in);
  std::string answer;
  const HRESULT result = Ask(
      "send " + BytesText(Bytes(first, first + in_size)) + " " + std::to_string(out_size), answer);
  if (FAILED(result)) return result;
  Bytes reply;
  if (!ParseBytes(answer, reply) || reply.size() > out_size) return E_UNEXPECTED;
  if (!reply.empty()) std::memcpy(out, reply.data(), reply.size());
  *returned = static_cast<DWORD>(reply.size());
  return S_OK;
}

}  // namespace
}  // namespace zel::sim

extern "C" {

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR name, DWORD, LPCVOID, WORD,
                                              LPSECURITY_ATTRIBUTES, HANDLE* port) {
  *port = INVALID_HANDLE_VALUE;
  return zel::sim::Connect(name, port);
}

HRESULT WINAPI FilterGetMessage(HANDLE port, PFILTER_MESSAGE_HEADER buffer, DWORD size,
                                LPOVERLAPPED overlapped) {
  if (size < sizeof *buffer) return E_INVALIDARG;
  if (overlapped == nullptr) return zel::sim::GetMessageAndWait(port, buffer, size);
  return zel::sim::BeginPortRead(port, buffer, size, overlapped);
}

HRESULT WINAPI FilterSendMessage(HANDLE port, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                                 LPDWORD returned) {
  return zel::sim::Send(port, in, in_size, out, out_size, returned);
}

// The driver waits for no reply.
HRESULT WINAPI FilterReplyMessage(HANDLE, PFILTER_REPLY_HEADER, DWORD) {
  return zel::sim::kNoWaiterForReply;
}

}  // extern "C"
