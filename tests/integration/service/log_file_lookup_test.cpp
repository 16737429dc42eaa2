#include "service/log_file_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_RegGetValueW;
extern void* __imp_Sleep;
}

namespace zel {
namespace {

std::wstring install_directory;  // in the registry; empty for none

LSTATUS WINAPI AnswerInstallDirectory(HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data,
                                      LPDWORD size) {
  if (install_directory.empty()) return ERROR_FILE_NOT_FOUND;
  *size = static_cast<DWORD>((install_directory.size() + 1) * sizeof(wchar_t));
  std::memcpy(data, install_directory.c_str(), *size);
  return ERROR_SUCCESS;
}

void WINAPI SkipSleep(DWORD) {}

class GetLogFilePathTest : public ::testing::Test {
 protected:
  // The path in a buffer that held something else before.
  static std::wstring Get(const std::wstring& program_path) {
    wchar_t buffer[MAX_PATH];
    std::fill_n(buffer, MAX_PATH, L'#');
    GetLogFilePath(program_path.c_str(), buffer);
    return {buffer, std::find(buffer, buffer + MAX_PATH, L'\0')};
  }

  test::ImportHook registry_hook_{__imp_RegGetValueW, &AnswerInstallDirectory};
  test::ImportHook sleep_hook_{__imp_Sleep, &SkipSleep};
};

TEST_F(GetLogFilePathTest, InstallDirectoryHoldsTheLog) {
  install_directory = L"D:\\agent";
  EXPECT_EQ(Get(L"C:\\svc\\prog.exe"), L"D:\\agent\\log\\zelservice.log");
}

TEST_F(GetLogFilePathTest, WithoutInstallDirectoryTheLogIsBesideTheProgram) {
  EXPECT_EQ(Get(L"C:\\svc\\prog.exe"), L"C:\\svc\\prog.log");
}

TEST_F(GetLogFilePathTest, LongestPathIsTerminatedInTheBuffer) {
  const std::wstring stem(255, L'p');
  EXPECT_EQ(Get(stem + L".exe"), stem + L".log");
}

}  // namespace
}  // namespace zel
