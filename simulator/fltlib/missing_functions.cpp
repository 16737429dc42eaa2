// What a machine without the driver lacks for the service, and on Wine what Wine lacks besides, put
// into the import table of the program that loads this library: the program itself stays as it
// ships. On Windows the system's own functions serve, its pipes above all. Test bench only.
//
// The library is imported statically, so that its DllMain runs when the table is filled and no
// code of the program has run yet.
#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "simulator/control_client.h"
#include "simulator/file_identity.h"
#include "simulator/fltlib/client_pipe_calls.h"
#include "simulator/fltlib/import_table.h"
#include "simulator/fltlib/patient_send.h"
#include "simulator/fltlib/pipe_calls.h"
#include "simulator/fltlib/port_reads.h"
#include "simulator/fltlib/security_callback.h"
#include "simulator/on_wine.h"

namespace zel::sim {
namespace {

constexpr DWORD kVerifyControlCode = 0x000937CF;

decltype(&::DeviceIoControl) system_device_io_control = nullptr;
decltype(&::GetVolumeNameForVolumeMountPointW) system_volume_name = nullptr;

// Shows the driver the control code; false without a driver.
bool Verify(HANDLE handle) {
  ControlClient driver;
  if (!driver.connected()) return false;
  const std::optional<FileKey> file = IdentifyFile(handle);
  // Of what is no file of a volume the driver sees nothing.
  if (!file) return true;
  const std::string order =
      "verify " + OrderText(*file) + " " + std::to_string(::GetCurrentProcessId());
  return driver.Tell(order).value_or("").starts_with("ok");
}

BOOL WINAPI VerifyingDeviceIoControl(HANDLE handle, DWORD code, void* in, DWORD in_size, void* out,
                                     DWORD out_size, DWORD* returned, OVERLAPPED* overlapped) {
  if (code == kVerifyControlCode && ::GetFileType(handle) == FILE_TYPE_DISK && Verify(handle)) {
    if (returned != nullptr) *returned = 0;
    return TRUE;
  }
  return system_device_io_control(handle, code, in, in_size, out, out_size, returned, overlapped);
}

// Whether `name` is the name of a volume of this machine.
bool IsVolume(std::wstring_view name) {
  wchar_t each[64];
  const HANDLE search = ::FindFirstVolumeW(each, 64);
  if (search == INVALID_HANDLE_VALUE) return false;
  bool found = false;
  do {
    found = ::lstrcmpiW(each, std::wstring(name).c_str()) == 0;
  } while (!found && ::FindNextVolumeW(search, each, 64));
  ::FindVolumeClose(search);
  return found;
}

// Windows names a volume that is asked for by its name; Wine knows mount points only.
BOOL WINAPI NamingVolumeName(const wchar_t* mount_point, wchar_t* name, DWORD chars) {
  if (system_volume_name(mount_point, name, chars)) return TRUE;
  const DWORD error = ::GetLastError();
  const std::wstring_view asked = mount_point != nullptr ? mount_point : L"";
  if (!IsVolume(asked)) {
    ::SetLastError(error);
    return FALSE;
  }
  if (asked.size() >= chars) {
    ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return FALSE;
  }
  name[asked.copy(name, asked.size())] = L'\0';
  return TRUE;
}

void FillGapsOfWine() {
  ReplaceImport("KERNEL32.dll", "GetVolumeNameForVolumeMountPointW", &NamingVolumeName,
                system_volume_name);
  ReplaceImport("RPCRT4.dll", "NdrServerCall2", &PipingServerCall, system_server_call);
  ReplaceImport("RPCRT4.dll", "NdrClientCall2", &PipingClientCall, system_client_call);
  InstallPatientSend();
  InstallSecurityCallback();
}

}  // namespace
}  // namespace zel::sim

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  using namespace zel::sim;
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  ReplaceImport("KERNEL32.dll", "DeviceIoControl", &VerifyingDeviceIoControl,
                system_device_io_control);
  WatchPortReads();
  if (IsOnWine()) FillGapsOfWine();
  return TRUE;
}
