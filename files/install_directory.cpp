#include "files/install_directory.h"

#include <windows.h>

#include <cstdio>
#include <string>

#include "files/install_directory_reader.h"
#include "files/layout.h"

namespace zel {

namespace {

static_assert(kMaxPathLength + 1 == MAX_PATH);
static_assert(kInstallDirectoryBytes == kInstallDirectoryChars * sizeof(wchar_t));

bool ReadRegistryValue(wchar_t* buffer, std::uint32_t& size_bytes) {
  DWORD size = size_bytes;
  const LSTATUS status = ::RegGetValueW(HKEY_LOCAL_MACHINE, L"Software\\Velmora Inc\\DruAgent",
                                        L"InstallDirectory", RRF_RT_REG_SZ, nullptr, buffer, &size);
  size_bytes = size;
  return status == ERROR_SUCCESS;
}

void WriteToStandardError(const std::wstring& text) {
  std::string bytes(text.size() * 3, '\0');  // three bytes at most for a UTF-16 unit
  const int length =
      ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(),
                            static_cast<int>(bytes.size()), nullptr, nullptr);
  std::fwrite(bytes.data(), 1, static_cast<std::size_t>(length), stderr);
  std::fflush(stderr);
}

// Every path below the CBT directory would be cut, and bitmaps would go where nobody finds them.
[[noreturn]] void EndProcessOverLongPath(const std::wstring& directory) {
  constexpr UINT kInvalidParameter = 0xC0000417;  // STATUS_INVALID_CRUNTIME_PARAMETER
  WriteToStandardError(L"The CBT directory " + directory + L" has " +
                       std::to_wstring(directory.size()) + L" characters, more than " +
                       std::to_wstring(kMaxPathLength) + L"\n");
  ::TerminateProcess(::GetCurrentProcess(), kInvalidParameter);
  for (;;) ::Sleep(INFINITE);  // the process is ending
}

std::wstring ComputeCbtDirectory() {
  wchar_t install_directory[kInstallDirectoryChars];
  GetInstallDirectory(install_directory);
  std::wstring directory = ComposeCbtDirectory(install_directory);
  if (directory.size() > kMaxPathLength) EndProcessOverLongPath(directory);
  return directory;
}

}  // namespace

void GetInstallDirectory(wchar_t (&buffer)[kInstallDirectoryChars]) {
  ReadInstallDirectory(buffer, ReadRegistryValue, ::Sleep);
}

const std::wstring& GetCbtDirectory() {
  // Never destroyed: threads may still use it while the process ends.
  static const std::wstring& directory = *new std::wstring(ComputeCbtDirectory());
  return directory;
}

}  // namespace zel
