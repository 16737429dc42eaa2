#include "driver/driver_port.h"

// After <windows.h>:
#include <fltuser.h>

#include <utility>

#include "logging/log_message.h"
#include "win32/shared_slot.h"

namespace zel {

namespace {

constexpr wchar_t kPortName[] = L"\\VelmoraActivityFilterPort";

SharedSlot<const UniqueFile> openPort;

HRESULT Send(DriverCommandBytes command, std::span<std::byte> reply) {
  const DriverPort port = CurrentDriverPort();
  if (port == nullptr) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
  DWORD returned = 0;
  return ::FilterSendMessage(port->get(), command.data(), static_cast<DWORD>(command.size()),
                             reply.empty() ? nullptr : reply.data(),
                             static_cast<DWORD>(reply.size()), &returned);
}

}  // namespace

HRESULT ConnectDriverPort() {
  UniqueFile port;
  const HRESULT result =
      ::FilterConnectCommunicationPort(kPortName, 0, nullptr, 0, nullptr, port.put());
  if (result != S_OK) {
    LogMessage(kGeneralError, L"FilterConnectCommunications Port failed\n");
    return result;
  }
  openPort.Set(std::make_shared<const UniqueFile>(std::move(port)));
  return S_OK;
}

bool DriverPortConnected() {
  return CurrentDriverPort() != nullptr;
}

DriverPort CurrentDriverPort() {
  return openPort.Get();
}

void CloseDriverPort() {
  openPort.Set(nullptr);
}

HRESULT SendDriverCommand(DriverCommand command, std::span<std::byte> reply) {
  const HRESULT result = Send(MakeDriverCommand(command), reply);
  if (result != S_OK) {
    LogMessage(kDriverCommError, L"FilterSendMessage failed: %d (0x%x)\n", result, result);
  }
  return result;
}

HRESULT NotifyDriverOfTrackingChanges() {
  const HRESULT result = SendDriverCommand(DriverCommand::kTrackingListChanged);
  if (result == S_OK) {
    LogMessage(kDriverCommDebug, L"Notified filter driver of file tracking changes\n");
  }
  return result;
}

}  // namespace zel
