#include "zelctl/win32_machine.h"

#include <windows.h>

#include "common/error_info.h"
#include "common/identity.h"
#include "common/system_time.h"
#include "zelctl/wide_text.h"
#include "zelctl/win32_files.h"

namespace zel::ctl {

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
  if (code != ERROR_SUCCESS) return code;
  VolumeGuid volume;
  identity.volume.reset();
  if (GetVolumeGuidForPath(wide.c_str(), volume) == ERROR_SUCCESS) identity.volume = volume;
  return ERROR_SUCCESS;
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
