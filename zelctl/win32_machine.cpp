#include "zelctl/win32_machine.h"

#include <windows.h>

#include "errors/error_info.h"
#include "files/file_identity.h"
#include "win32/file_time.h"
#include "win32/handles.h"
#include "zelctl/wide_text.h"
#include "zelctl/win32_files.h"

namespace zel::ctl {

namespace {

// A buffer that a system call fills; it answers the length, or the room that it needs.
template <class Fill>
std::wstring FilledText(Fill fill) {
  std::wstring text(fill(nullptr, 0), L'\0');
  const DWORD length = fill(text.data(), static_cast<DWORD>(text.size()));
  if (length >= text.size()) return {};
  text.resize(length);
  return text;
}

std::wstring AbsoluteOf(const std::wstring& path) {
  const std::wstring absolute = FilledText([&](wchar_t* text, DWORD room) {
    return ::GetFullPathNameW(path.c_str(), room, text, nullptr);
  });
  return absolute.empty() ? path : absolute;
}

// As the system names what is open; empty where there is nothing or it does not tell.
std::wstring FinalPath(const std::wstring& path) {
  const UniqueFile file(::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!file) return {};
  return FilledText([&](wchar_t* text, DWORD room) {
    return ::GetFinalPathNameByHandleW(file.get(), text, room, 0);
  });
}

}  // namespace

std::uint32_t Win32Machine::OpenSource(const std::string& path, std::unique_ptr<SourceFile>& file) {
  return OpenSystemSource(ToWide(path), file);
}

std::uint32_t Win32Machine::OpenTarget(const std::string& path, std::unique_ptr<TargetFile>& file) {
  return OpenSystemTarget(ToWide(path), file);
}

std::uint32_t Win32Machine::CreateReplacement(const std::string& path, const std::string& beside,
                                              std::unique_ptr<ReplacementFile>& file) {
  return CreateSystemReplacement(ToWide(path), ToWide(beside), file);
}

std::uint32_t Win32Machine::Remove(const std::string& path) {
  return ::DeleteFileW(ToWide(path).c_str()) ? ERROR_SUCCESS : ::GetLastError();
}

std::uint32_t Win32Machine::Identify(const std::string& path, FileIdentity& identity) {
  const std::wstring wide = ToWide(path);
  const std::uint32_t code = GetFileIdAndSize(wide.c_str(), &identity.file_id, nullptr);
  if (code == ERROR_SUCCESS) identity.volume = VolumeOf(wide);
  return code;
}

std::uint32_t Win32Machine::Lock(const std::string& path, std::unique_ptr<HeldLock>& lock) {
  return LockSystemFile(ToWide(path), lock);
}

std::uint32_t Win32Machine::MakeFolder(const std::string& path) {
  if (::CreateDirectoryW(ToWide(path).c_str(), nullptr)) return ERROR_SUCCESS;
  const std::uint32_t code = ::GetLastError();
  return code == ERROR_ALREADY_EXISTS ? ERROR_SUCCESS : code;
}

std::uint32_t Win32Machine::GetFreeBytes(const std::string& folder, std::uint64_t& bytes) {
  ULARGE_INTEGER free_bytes = {};
  if (!::GetDiskFreeSpaceExW(ToWide(folder).c_str(), &free_bytes, nullptr, nullptr)) {
    return ::GetLastError();
  }
  bytes = free_bytes.QuadPart;
  return ERROR_SUCCESS;
}

std::string Win32Machine::Resolve(const std::string& path) {
  const std::wstring absolute = AbsoluteOf(ToWide(path));
  if (const std::wstring whole = FinalPath(absolute); !whole.empty()) return ToUtf8(whole);
  const std::size_t name = absolute.find_last_of(L'\\') + 1;
  std::wstring folder = FinalPath(absolute.substr(0, name));
  if (folder.empty()) return ToUtf8(absolute);
  if (!folder.ends_with(L'\\')) folder += L'\\';
  return ToUtf8(folder + absolute.substr(name));
}

std::string Win32Machine::AbsolutePath(const std::string& path) {
  return ToUtf8(AbsoluteOf(ToWide(path)));
}

FileTime Win32Machine::Now() {
  return SystemTimeNow();
}

// A step of the clock is some milliseconds at most.
FileTime Win32Machine::PastMoment() {
  const FileTime moment = SystemTimeNow();
  while (SystemTimeNow() == moment) ::Sleep(1);
  return moment;
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
