#include "simulator/fltlib/patient_send.h"

#include <winsock2.h>

// After <winsock2.h>:
#include <windows.h>

#include <cstring>

namespace zel::sim {

namespace {

// Waits until the socket takes more; false when it has failed.
bool WaitUntilWritable(SOCKET socket) {
  fd_set writable = {1, {socket}};
  fd_set failed = {1, {socket}};
  return ::select(0, nullptr, &writable, &failed, nullptr) > 0 && writable.fd_count == 1;
}

int WSAAPI PatientSend(SOCKET socket, const char* bytes, int count, int flags) {
  WSABUF buffer = {static_cast<ULONG>(count), const_cast<char*>(bytes)};
  DWORD sent = 0;
  while (::WSASend(socket, &buffer, 1, &sent, static_cast<DWORD>(flags), nullptr, nullptr) != 0) {
    if (::WSAGetLastError() != WSAEWOULDBLOCK || !WaitUntilWritable(socket)) return SOCKET_ERROR;
  }
  return static_cast<int>(sent);
}

}  // namespace

void InstallPatientSend() {
  // movabs $PatientSend, %rax; jmp *%rax
  unsigned char jump[] = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};
  const auto target = reinterpret_cast<void*>(&PatientSend);
  std::memcpy(jump + 2, &target, sizeof target);
  const auto system_send =
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ws2_32.dll"), "send"));
  DWORD protection = 0;
  if (system_send == nullptr ||
      !::VirtualProtect(system_send, sizeof jump, PAGE_EXECUTE_READWRITE, &protection)) {
    return;
  }
  std::memcpy(system_send, jump, sizeof jump);
  ::VirtualProtect(system_send, sizeof jump, protection, &protection);
  ::FlushInstructionCache(::GetCurrentProcess(), system_send, sizeof jump);
}

}  // namespace zel::sim
