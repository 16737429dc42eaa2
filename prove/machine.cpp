#include "prove/machine.h"

#include <cstdio>

#include "simulator/on_wine.h"

namespace zel::prove {

namespace {

constexpr std::size_t kLongestFolder = 90;

std::string RegistryText(const wchar_t* key, const wchar_t* name) {
  wchar_t value[256] = {};
  DWORD bytes = sizeof value;
  const LSTATUS result =
      ::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, value, &bytes);
  return result == ERROR_SUCCESS ? ToUtf8(value) : std::string();
}

// By the kernel's own word: a program without a manifest for it is told an older version otherwise.
std::string SystemVersion() {
  using GetVersionCall = LONG(WINAPI*)(OSVERSIONINFOW*);
  const auto get_version = reinterpret_cast<GetVersionCall>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  OSVERSIONINFOW version = {};
  version.dwOSVersionInfoSize = sizeof version;
  if (get_version == nullptr || get_version(&version) != 0) return "unknown";
  constexpr wchar_t kKey[] = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";
  return std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) +
         "." + std::to_string(version.dwBuildNumber) + " (" + RegistryText(kKey, L"ProductName") +
         " " + RegistryText(kKey, L"DisplayVersion") + ")";
}

std::string ComputerName() {
  wchar_t name[256] = {};
  DWORD chars = 256;
  return ::GetComputerNameExW(ComputerNameDnsHostname, name, &chars) ? ToUtf8(name) : "unknown";
}

std::string Hardware() {
  SYSTEM_INFO system = {};
  ::GetNativeSystemInfo(&system);
  MEMORYSTATUSEX memory = {};
  memory.dwLength = sizeof memory;
  ::GlobalMemoryStatusEx(&memory);
  return std::to_string(system.dwNumberOfProcessors) + " processors, " +
         std::to_string(memory.ullTotalPhys >> 20) + " MiB";
}

std::wstring DriveOf(const std::filesystem::path& folder) {
  wchar_t drive[MAX_PATH] = {};
  return ::GetVolumePathNameW(folder.c_str(), drive, MAX_PATH) ? drive : L"";
}

std::string FileSystemOf(const std::filesystem::path& folder) {
  wchar_t name[64] = {};
  const std::wstring drive = DriveOf(folder);
  return ::GetVolumeInformationW(drive.c_str(), nullptr, 0, nullptr, nullptr, nullptr, name, 64)
             ? ToUtf8(name) + " on " + ToUtf8(drive)
             : "unknown";
}

std::string VersionOf(const std::filesystem::path& program) {
  std::vector<BYTE> resource(::GetFileVersionInfoSizeW(program.c_str(), nullptr));
  void* at = nullptr;
  UINT size = 0;
  if (resource.empty() ||
      !::GetFileVersionInfoW(program.c_str(), 0, static_cast<DWORD>(resource.size()),
                             resource.data()) ||
      !::VerQueryValueW(resource.data(), L"\\", &at, &size)) {
    return "unknown";
  }
  const auto& version = *static_cast<const VS_FIXEDFILEINFO*>(at);
  return std::to_string(HIWORD(version.dwFileVersionMS)) + "." +
         std::to_string(LOWORD(version.dwFileVersionMS)) + "." +
         std::to_string(HIWORD(version.dwFileVersionLS)) + "." +
         std::to_string(LOWORD(version.dwFileVersionLS));
}

// A known DLL is taken from the system's folder, and the simulated user library would not be found.
std::string KnownUserLibrary() {
  constexpr wchar_t kKey[] = LR"(SYSTEM\CurrentControlSet\Control\Session Manager\KnownDLLs)";
  UniqueRegistryKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    return "there is no list of known DLLs";
  }
  for (DWORD index = 0;; ++index) {
    wchar_t name[256] = {};
    DWORD chars = 256;
    wchar_t value[256] = {};
    DWORD bytes = sizeof value - sizeof(wchar_t);
    const LSTATUS result = ::RegEnumValueW(key.get(), index, name, &chars, nullptr, nullptr,
                                           reinterpret_cast<BYTE*>(value), &bytes);
    if (result == ERROR_NO_MORE_ITEMS) return "no";
    if (result == ERROR_SUCCESS && ::_wcsicmp(value, L"fltlib.dll") == 0) return "YES";
  }
}

std::string Now() {
  SYSTEMTIME time = {};
  ::GetSystemTime(&time);
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02uZ", time.wYear, time.wMonth,
                time.wDay, time.wHour, time.wMinute, time.wSecond);
  return text;
}

}  // namespace

bool IsAdministrator() {
  SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
  PSID group = nullptr;
  if (!::AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID,
                                  DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0, &group)) {
    return false;
  }
  BOOL member = FALSE;
  const bool told = ::CheckTokenMembership(nullptr, group, &member);
  ::FreeSid(group);
  return told && member;
}

std::string FolderFault(const std::filesystem::path& folder) {
  if (folder.wstring().size() > kLongestFolder) {
    return "its path has more than " + std::to_string(kLongestFolder) + " characters";
  }
  const std::wstring drive = DriveOf(folder);
  wchar_t name[64] = {};
  if (drive.empty() || ::GetDriveTypeW(drive.c_str()) == DRIVE_REMOTE ||
      !::GetVolumeNameForVolumeMountPointW(drive.c_str(), name, 64)) {
    return "it is on no local drive";
  }
  return {};
}

std::vector<Fact> MachineFacts(const Kit& kit) {
  const std::string wine = sim::WineVersion();
  return {{"time", Now()},
          {"kit", PROVE_VERSION},
          {"machine", ComputerName()},
          {"hardware", Hardware()},
          {"system", SystemVersion()},
          {"stand-in for Windows", wine.empty() ? "none" : "Wine " + wine},
          {"folder", ToUtf8(kit.folder().wstring())},
          {"file system", FileSystemOf(kit.folder())},
          {"zelservice.exe", VersionOf(kit.bin() / "zelservice.exe")},
          {"zelctl.exe", VersionOf(kit.bin() / "zelctl.exe")},
          {"fltlib is a known DLL", KnownUserLibrary()},
          {"driver", "simulated (driversim.exe of this kit)"}};
}

}  // namespace zel::prove
