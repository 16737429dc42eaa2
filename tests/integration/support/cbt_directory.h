// A CBT directory of this process's own, without the registry value that the whole machine shares.
#pragma once

#include <windows.h>

#include <cstring>
#include <string>

#include "files/install_directory.h"
#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_RegGetValueW;
extern void* __imp_Sleep;
}

namespace zel::test {

inline const std::wstring* answered_install_directory = nullptr;

inline LSTATUS WINAPI AnswerInstallDirectory(HKEY, const wchar_t*, const wchar_t*, DWORD, DWORD*,
                                             void* buffer, DWORD* size) {
  const DWORD offered = *size;
  *size = static_cast<DWORD>((answered_install_directory->size() + 1) * sizeof(wchar_t));
  if (*size > offered) return ERROR_MORE_DATA;
  std::memcpy(buffer, answered_install_directory->c_str(), *size);
  return ERROR_SUCCESS;
}

inline void WINAPI DoNotSleep(DWORD) {}

// Makes <install_directory>\cbt the CBT directory, which this process must not have asked for
// before, and returns it. Called while no other thread runs.
inline const std::wstring& UseCbtDirectoryOf(const std::wstring& install_directory) {
  answered_install_directory = &install_directory;
  const ImportHook registry(__imp_RegGetValueW, &AnswerInstallDirectory);
  const ImportHook sleep(__imp_Sleep, &DoNotSleep);
  return GetCbtDirectory();
}

}  // namespace zel::test
