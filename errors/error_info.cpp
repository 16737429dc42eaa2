#include "errors/error_info.h"

#include <windows.h>

#include <string_view>

#include "errors/error_name.h"
#include "errors/error_text.h"
#include "win32/last_error.h"

namespace zel {

namespace {

using StatusConverter = ULONG WINAPI(LONG status);

// Null when it cannot be found.
StatusConverter* FindStatusConverter() {
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  if (ntdll == nullptr) return nullptr;
  return reinterpret_cast<StatusConverter*>(
      reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlNtStatusToDosError")));
}

std::uint32_t Convert(std::uint32_t value) noexcept {
  const LastErrorKeeper keeper;
  static StatusConverter* const status_converter = FindStatusConverter();
  return ToWin32Code(value, status_converter);
}

}  // namespace

ErrorInfo::ErrorInfo() noexcept : ErrorInfo(::GetLastError()) {
  ::SetLastError(code_);
}

ErrorInfo::ErrorInfo(std::uint32_t code) noexcept : code_(Convert(code)) {}

const char* ErrorInfo::text() const {
  if (!text_.empty()) return text_.c_str();
  constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
  constexpr DWORD kEnglish = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);
  const LastErrorKeeper keeper;
  char buffer[kErrorTextSize];
  const DWORD length =
      ::FormatMessageA(kFlags, nullptr, code_, kEnglish, buffer, kErrorTextSize, nullptr);
  text_ = AssembleErrorText({buffer, length}, code_, ErrorName(code_).text());
  return text_.c_str();
}

}  // namespace zel
