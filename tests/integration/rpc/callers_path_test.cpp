// Paths that no caller may have opened, kept or logged, through the three procedures that take one.
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/rpc_fixture.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_GetDriveTypeW;
}

namespace zel {
namespace {

using test::FakeDriver;
using test::kKey;
using test::Track;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kGeneralOnly[] =
    "zelservicelog=trace\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n";
constexpr std::uint32_t kBlock = 4096;

// Every path that this program opens with the rights for asking who a file is.
std::vector<std::wstring> asked_files;

HANDLE WINAPI NoteAskedFiles(const wchar_t* path, DWORD access, DWORD, SECURITY_ATTRIBUTES*, DWORD,
                             DWORD, HANDLE) {
  if (access == (SYNCHRONIZE | FILE_READ_ATTRIBUTES)) asked_files.emplace_back(path);
  ::SetLastError(ERROR_FILE_NOT_FOUND);
  return INVALID_HANDLE_VALUE;
}

class CallersPathTest : public test::RpcFixture {
 protected:
  std::uint32_t Start(const std::wstring& path) {
    wire::BitmapInfo info = {};
    const test::ImportHook hook(__imp_CreateFileW, &NoteAskedFiles);
    const CallResult result = client.StartTracking(path, kBlock, info);
    EXPECT_EQ(result.rpc_status, 0u);
    return result.code;
  }

  std::uint32_t Start2(const std::wstring& path) {
    wire::BitmapInfo info = {};
    const CallResult result = client.StartTracking2(path, kKey, 5000, kBlock, info);
    EXPECT_EQ(result.rpc_status, 0u);
    return result.code;
  }

  void ExpectRefused(const std::wstring& path, std::uint32_t code) {
    asked_files.clear();
    EXPECT_EQ(Start(path), code);
    EXPECT_EQ(Start2(path), code);
    EXPECT_THAT(asked_files, IsEmpty());
    EXPECT_THAT(FakeDriver::Take(), IsEmpty());
    EXPECT_THAT(ListAllBitmaps(), IsEmpty());
    std::vector<TrackedFileEntry> files;
    CollectTrackedFiles(files);
    EXPECT_THAT(files, IsEmpty());
  }
};

TEST_F(CallersPathTest, LocalFileIsAskedFor) {
  asked_files.clear();
  EXPECT_EQ(Start(L"C:\\data\\file"), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_THAT(asked_files, ElementsAre(L"C:\\data\\file"));
}

TEST_F(CallersPathTest, WhatIsNoLocalFileIsRefusedBeforeItIsOpened) {
  for (const wchar_t* path :
       {L"\\\\server\\share\\file", L"\\\\?\\UNC\\server\\share\\file", L"//server/share/file",
        L"\\\\.\\pipe\\name", L"\\\\.\\PhysicalDrive0",
        L"\\\\?\\GLOBALROOT\\Device\\Mup\\server\\x", L"C:\\data\\file:stream", L"C:\\data\\NUL.",
        L"C:\\data\\COM1 .txt"}) {
    ExpectRefused(path, ERROR_INVALID_NAME);
  }
}

TEST_F(CallersPathTest, DotAtTheEndIsThePathOfALocalFile) {
  asked_files.clear();
  EXPECT_EQ(Start(L"C:\\data\\file."), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_THAT(asked_files, ElementsAre(L"C:\\data\\file."));
}

UINT WINAPI AnswerRemote(const wchar_t* root) {
  return root == std::wstring_view(L"S:\\") ? DRIVE_REMOTE : DRIVE_FIXED;
}

TEST_F(CallersPathTest, FileOnADriveThatIsASharesIsRefused) {
  const test::ImportHook hook(__imp_GetDriveTypeW, &AnswerRemote);
  ExpectRefused(L"S:\\file", ERROR_INVALID_NAME);
  ExpectRefused(L"\\\\?\\S:\\file", ERROR_INVALID_NAME);
  EXPECT_EQ(Start(L"R:\\file"), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(CallersPathTest, RefusedPathIsOneLineWithItsStart) {
  StartLogging(kGeneralOnly);
  ExpectRefused(L"C:\\a\r\n2026-01-01 00:00:00.000 INFO  [1] Service stopped", ERROR_INVALID_NAME);
  ExpectRefused(L"\\\\server\\" + std::wstring(20'000, L's'), ERROR_INVALID_NAME);
  const std::string shown = "\\\\server\\" + std::string(71, 's');
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(
          "WARN  StartTracking refused the path C:\\a??2026-01-01 00:00:00.000 INFO  [1] "
          "Service stopped: it has control characters",
          "WARN  StartTracking2 refused the path C:\\a??2026-01-01 00:00:00.000 INFO  [1] "
          "Service stopped: it has control characters",
          "WARN  StartTracking refused the path " + shown + "...: it is no file on a local drive",
          "WARN  StartTracking2 refused the path " + shown +
              "...: it is no file on a local drive"));
}

TEST_F(CallersPathTest, PathOfMegabytesIsNeitherKeptNorLogged) {
  StartLogging(kGeneralOnly);
  const std::wstring path = L"C:\\" + std::wstring(4'000'000, L'p');
  ExpectRefused(path, ERROR_FILENAME_EXCED_RANGE);
  EXPECT_EQ(client.StopTracking(path), (CallResult{0, ERROR_FILENAME_EXCED_RANGE}));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_THAT(messages, SizeIs(3));
  for (const std::string& message : messages) {
    EXPECT_THAT(message, AllOf(HasSubstr("refused the path C:\\ppp"), HasSubstr("too long")));
    EXPECT_LT(message.size(), 200u);
  }
}

TEST_F(CallersPathTest, StopOfAnUntrackedPathForgesNoLine) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.StopTracking(L"C:\\a\r\nforged"), (CallResult{0, ERROR_FILE_NOT_FOUND}));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("INFO  StopTracking invoked: C:\\a??forged",
                                                       "INFO  StopTracking exit 2: C:\\a??forged"));
}

// A list of an earlier version may have one.
TEST_F(CallersPathTest, TrackedPathIsStoppedWhateverItIs) {
  Track(L"\\\\server\\share\\file");
  EXPECT_EQ(client.StopTracking(L"\\\\server\\share\\file"), (CallResult{0, 0}));
  std::vector<TrackedFileEntry> files;
  CollectTrackedFiles(files);
  EXPECT_THAT(files, IsEmpty());
}

}  // namespace
}  // namespace zel
