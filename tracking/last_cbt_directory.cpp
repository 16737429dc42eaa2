#include "tracking/last_cbt_directory.h"

#include <string_view>

#include "files/layout.h"
#include "logging/log_message.h"
#include "tracking/volume_list.h"

namespace zel {

namespace {

constexpr wchar_t kValueName[] = L"BitmapDirectory";

bool IsSame(std::wstring_view a, std::wstring_view b) {
  return !PathLess(a, b) && !PathLess(b, a);
}

// Empty when nothing is remembered.
std::wstring ReadLast(HKEY key) {
  wchar_t last[kMaxPathLength + 1];
  DWORD bytes = sizeof last;
  const LSTATUS status =
      ::RegGetValueW(key, nullptr, kValueName, RRF_RT_REG_SZ, nullptr, last, &bytes);
  if (status == ERROR_SUCCESS) return last;
  if (status != ERROR_FILE_NOT_FOUND) {
    LogMessage(kGeneralWarn, L"RegGetValue(%ls) failed: %u\n", kValueName, status);
  }
  return {};
}

}  // namespace

void NoteCbtDirectory(HKEY key, const std::wstring& directory) {
  const std::wstring last = ReadLast(key);
  if (IsSame(last, directory)) return;
  if (!last.empty()) {
    LogMessage(kGeneralWarn,
               L"The bitmaps are in %s, and were in %s at the last start: those of one directory "
               L"miss what is reported while the other one is in use\n",
               directory.c_str(), last.c_str());
  }
  const LSTATUS status =
      ::RegSetValueExW(key, kValueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(directory.c_str()),
                       static_cast<DWORD>((directory.size() + 1) * sizeof(wchar_t)));
  if (status != ERROR_SUCCESS) {
    LogMessage(kGeneralWarn, L"RegSetValueEx(%ls) failed: %u\n", kValueName, status);
  }
}

}  // namespace zel
