#include "service/backup_privilege.h"

#include <windows.h>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"

extern "C" {
extern void* __imp_OpenProcessToken;
extern void* __imp_LookupPrivilegeValueW;
extern void* __imp_AdjustTokenPrivileges;
}

namespace zel {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

BOOL WINAPI RefuseToken(HANDLE, DWORD, PHANDLE) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

BOOL WINAPI RefuseLookup(LPCWSTR, LPCWSTR, PLUID) {
  ::SetLastError(ERROR_NO_SUCH_PRIVILEGE);
  return FALSE;
}

// What an NTSTATUS in the last error becomes is its Win32 code.
BOOL WINAPI RefuseAdjustment(HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD) {
  ::SetLastError(0xC0000022);  // STATUS_ACCESS_DENIED
  return FALSE;
}

class BackupPrivilegeTest : public test::LogFixture {
 protected:
  void ExpectFailure(std::uint32_t code, const std::string& text, const std::string& name) {
    StartLogging();
    EXPECT_EQ(AcquireBackupPrivilege(), code);
    ShutdownLogging();
    EXPECT_THAT(
        test::ReadFileBytes(log_path()),
        AllOf(HasSubstr("ERROR"), HasSubstr(text + " failed: "), HasSubstr(" [" + name + "]")));
  }
};

TEST_F(BackupPrivilegeTest, IsAcquiredSilently) {
  StartLogging();
  EXPECT_EQ(AcquireBackupPrivilege(), 0u);
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(BackupPrivilegeTest, TokenThatCannotBeOpened) {
  const test::ImportHook hook(__imp_OpenProcessToken, &RefuseToken);
  ExpectFailure(ERROR_ACCESS_DENIED, "OpenProcessToken", "ERROR_ACCESS_DENIED");
}

TEST_F(BackupPrivilegeTest, PrivilegeThatTheSystemDoesNotKnow) {
  const test::ImportHook hook(__imp_LookupPrivilegeValueW, &RefuseLookup);
  ExpectFailure(ERROR_NO_SUCH_PRIVILEGE, "LookupPrivilegeValue(SeBackupPrivilege)",
                "ERROR_NO_SUCH_PRIVILEGE");
}

TEST_F(BackupPrivilegeTest, PrivilegeThatCannotBeAdjusted) {
  const test::ImportHook hook(__imp_AdjustTokenPrivileges, &RefuseAdjustment);
  ExpectFailure(ERROR_ACCESS_DENIED, "AdjustTokenPrivileges", "ERROR_ACCESS_DENIED");
}

}  // namespace
}  // namespace zel
