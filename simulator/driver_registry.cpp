#include "simulator/driver_registry.h"

#include <windows.h>

#include <string>

#include "simulator/text.h"
#include "win32/handles.h"

namespace zel::sim {

namespace {

constexpr wchar_t kParametersKey[] =
    LR"(SYSTEM\CurrentControlSet\Services\VelmoraActivityMonitor\Parameters)";
constexpr wchar_t kListKey[] =
    LR"(SYSTEM\CurrentControlSet\Services\VelmoraActivityMonitor\Parameters\TrackedFileList)";
constexpr wchar_t kCleanValue[] = L"SimulatorEndedCleanly";

// Values with names that are no GUIDs are not the list's; nothing else may stand in the key.
bool ReadValue(const wchar_t* name, DWORD type, const Bytes& data, TrackedFiles& files) {
  const std::wstring_view wide = name;
  VolumeGuid volume;
  if (!ParseVolume(std::string(wide.begin(), wide.end()), volume)) return true;
  return type == REG_BINARY && ReadTrackedList(data, volume, files);
}

}  // namespace

std::optional<TrackedFiles> ReadTrackedFiles() {
  UniqueRegistryKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kListKey, 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    return TrackedFiles{};
  }
  TrackedFiles files;
  Bytes data(65'536);
  for (DWORD index = 0;;) {
    wchar_t name[256];
    DWORD name_chars = 256;
    DWORD type = 0;
    auto size = static_cast<DWORD>(data.size());
    const LSTATUS result = ::RegEnumValueW(key.get(), index, name, &name_chars, nullptr, &type,
                                           reinterpret_cast<BYTE*>(data.data()), &size);
    if (result == ERROR_NO_MORE_ITEMS) return files;
    if (result == ERROR_MORE_DATA) {
      data.resize(2 * data.size());
      continue;
    }
    if (result != ERROR_SUCCESS) return std::nullopt;
    if (!ReadValue(name, type, Bytes(data.begin(), data.begin() + size), files))
      return std::nullopt;
    ++index;
  }
}

bool TakeCleanShutdownMark() {
  UniqueRegistryKey key;
  return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kParametersKey, 0, KEY_SET_VALUE, key.put()) ==
             ERROR_SUCCESS &&
         ::RegDeleteValueW(key.get(), kCleanValue) == ERROR_SUCCESS;
}

void LeaveCleanShutdownMark() {
  UniqueRegistryKey key;
  const DWORD yes = 1;
  if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kParametersKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                        key.put(), nullptr) == ERROR_SUCCESS) {
    ::RegSetValueExW(key.get(), kCleanValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&yes),
                     sizeof yes);
  }
}

}  // namespace zel::sim
