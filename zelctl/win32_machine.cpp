#include "zelctl/win32_machine.h"

#include <windows.h>

#include "errors/error_info.h"
#include "files/file_identity.h"
#include "files/layout.h"
#include "win32/file_time.h"
#include "zelctl/wide_text.h"
#include "zelctl/win32_files.h"

namespace zel::ctl {

namespace {

// The volume's GUID as the service takes it: from the first of the volume's names, which the
// system tells when it is asked for the name of a name; where it does not, from the one it knows.
std::optional<VolumeGuid> VolumeOf(const wchar_t* path) {
  wchar_t mount_point[MAX_PATH];
  wchar_t name[128];
  wchar_t first_name[128];
  if (!::GetVolumePathNameW(path, mount_point, MAX_PATH) ||
      !::GetVolumeNameForVolumeMountPointW(mount_point, name, 128)) {
    return std::nullopt;
  }
  const bool has_first = ::GetVolumeNameForVolumeMountPointW(name, first_name, 128);
  return ParseVolumeGuid(GuidTextInVolumeName(has_first ? first_name : name));
}

}  // namespace

std::uint32_t Win32Machine::OpenSource(const std::string& path, std::unique_ptr<SourceFile>& file) {
  return OpenSystemSource(ToWide(path), file);
}

std::uint32_t Win32Machine::OpenTarget(const std::string& path, std::unique_ptr<TargetFile>& file) {
  return OpenSystemTarget(ToWide(path), file);
}

std::uint32_t Win32Machine::CreateReplacement(const std::string& path,
                                              std::unique_ptr<ReplacementFile>& file) {
  return CreateSystemReplacement(ToWide(path), file);
}

std::uint32_t Win32Machine::Remove(const std::string& path) {
  return ::DeleteFileW(ToWide(path).c_str()) ? ERROR_SUCCESS : ::GetLastError();
}

std::uint32_t Win32Machine::Identify(const std::string& path, FileIdentity& identity) {
  const std::wstring wide = ToWide(path);
  const std::uint32_t code = GetFileIdAndSize(wide.c_str(), &identity.file_id, nullptr);
  if (code == ERROR_SUCCESS) identity.volume = VolumeOf(wide.c_str());
  return code;
}

std::string Win32Machine::AbsolutePath(const std::string& path) {
  const std::wstring wide = ToWide(path);
  std::wstring absolute(::GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr), L'\0');
  const DWORD length = ::GetFullPathNameW(wide.c_str(), static_cast<DWORD>(absolute.size()),
                                          absolute.data(), nullptr);
  if (length == 0 || length >= absolute.size()) return path;
  absolute.resize(length);
  return ToUtf8(absolute);
}

FileTime Win32Machine::Now() {
  return SystemTimeNow();
}

std::uint64_t Win32Machine::Milliseconds() {
  return ::GetTickCount64();
}

// The text is "words [NAME]".
ErrorWords Win32Machine::Describe(std::uint32_t code) {
  const std::string text = ErrorInfo(code).text();
  const std::size_t bracket = text.rfind(" [");
  return {.name = text.substr(bracket + 2, text.size() - bracket - 3),
          .text = text.substr(0, bracket)};
}

}  // namespace zel::ctl
