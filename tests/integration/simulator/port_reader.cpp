// The other process of the port's tests: reads one message, sets the event it is told and waits to
// be terminated, as a service that dies while it works on the message.
#include <windows.h>
// Behind <windows.h>.
#include <fltuser.h>

int wmain(int count, wchar_t** arguments) {
  if (count != 2) return 2;
  HANDLE port;
  alignas(8) char buffer[80];
  if (FAILED(::FilterConnectCommunicationPort(L"\\VelmoraActivityFilterPort", 0, nullptr, 0,
                                              nullptr, &port)) ||
      FAILED(::FilterGetMessage(port, reinterpret_cast<FILTER_MESSAGE_HEADER*>(buffer),
                                sizeof buffer, nullptr))) {
    return 1;
  }
  ::SetEvent(::CreateEventW(nullptr, TRUE, FALSE, arguments[1]));
  ::WaitForSingleObject(::GetCurrentProcess(), INFINITE);
  return 1;
}
