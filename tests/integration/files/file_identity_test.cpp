#include "files/file_identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rpc.h>
#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "errors/error_info.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/temp_directory.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_GetFileInformationByHandle;
extern void* __imp_GetVolumeNameForVolumeMountPointW;
extern void* __imp_GetVolumePathNameW;
extern void* __imp_UuidToStringW;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr VolumeGuid kGuid = {
    0x01234567, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
constexpr std::string_view kGeneralErrorsOnly =
    "zelservicelog=error\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n";
constexpr std::string_view kBitmapDebugOnly =
    "zelservicelog=none\nzelservicelog:bitmap=debug\nzelservicelog:drivercomm=none\n";

constexpr wchar_t kGuidText[] = L"01234567-89ab-cdef-0123-456789abcdef";

RPC_STATUS RPC_ENTRY FailToFormat(UUID*, RPC_WSTR*) {
  return RPC_S_OUT_OF_MEMORY;
}

TEST(GuidToStringTest, IsTheLowerCaseFormWithoutBraces) {
  EXPECT_EQ(GuidToString(kGuid), kGuidText);
  EXPECT_EQ(GuidToString({}), L"00000000-0000-0000-0000-000000000000");
}

TEST(GuidToStringTest, FailureReadsInvalidGuid) {
  const test::ImportHook hook(__imp_UuidToStringW, &FailToFormat);
  EXPECT_EQ(GuidToString(kGuid), L"<invalid GUID>");
}

TEST(ParseVolumeGuidTest, ReadsBackWhatGuidToStringWrites) {
  EXPECT_EQ(ParseVolumeGuid(GuidToString(kGuid)), kGuid);
  EXPECT_EQ(ParseVolumeGuid(GuidToString({})), VolumeGuid{});
  EXPECT_EQ(ParseVolumeGuid(L"01234567-89AB-CDEF-0123-456789ABCDEF"), kGuid);
}

TEST(ParseVolumeGuidTest, RefusesEveryOtherForm) {
  const std::wstring text = kGuidText;
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_EQ(ParseVolumeGuid(text.substr(0, length)), std::nullopt) << length;
    EXPECT_EQ(ParseVolumeGuid(std::wstring(text).replace(length, 1, L"x")), std::nullopt) << length;
    EXPECT_EQ(ParseVolumeGuid(std::wstring(text).replace(length, 1, 1, L'\0')), std::nullopt);
  }
  EXPECT_EQ(ParseVolumeGuid(L"{" + text + L"}"), std::nullopt);
  EXPECT_EQ(ParseVolumeGuid(text + L"0"), std::nullopt);
}

class GetFileIdAndSizeTest : public ::testing::Test {
 protected:
  // The path of a new file that holds `bytes`.
  [[nodiscard]] std::wstring File(const wchar_t* name, std::string_view bytes) const {
    const std::filesystem::path path = directory_.path() / name;
    test::WriteFileBytes(path, bytes);
    return path.wstring();
  }

  test::TempDirectory directory_;
};

TEST_F(GetFileIdAndSizeTest, NamesOfOneFileHaveOneIdAndOtherFilesAnother) {
  const std::wstring path = File(L"file", "12345");
  const std::wstring link = directory_.path() / L"link";
  const std::wstring other = File(L"other", "");
  ASSERT_TRUE(::CreateHardLinkW(link.c_str(), path.c_str(), nullptr));
  FileId id = 0;
  FileId link_id = 0;
  FileId other_id = 0;
  std::uint64_t size = 0;
  std::uint64_t other_size = 1;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), &id, &size), 0u);
  EXPECT_EQ(GetFileIdAndSize(link.c_str(), &link_id, nullptr), 0u);
  EXPECT_EQ(GetFileIdAndSize(other.c_str(), &other_id, &other_size), 0u);
  EXPECT_EQ(id, link_id);
  EXPECT_NE(id, other_id);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(other_size, 0u);
}

BOOL WINAPI AnswerWideInformation(HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
  *information = {};
  information->nFileIndexHigh = 0x89ABCDEF;
  information->nFileIndexLow = 0xFEDCBA98;
  information->nFileSizeHigh = 0x00000012;
  information->nFileSizeLow = 0xF0000001;
  return TRUE;
}

TEST_F(GetFileIdAndSizeTest, BothHalvesOfIdAndSizeCount) {
  const std::wstring path = File(L"file", "");
  const test::ImportHook hook(__imp_GetFileInformationByHandle, &AnswerWideInformation);
  FileId id = 0;
  std::uint64_t size = 0;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), &id, &size), 0u);
  EXPECT_EQ(id, 0x89ABCDEFFEDCBA98u);
  EXPECT_EQ(size, 0x12F0000001u);
}

TEST_F(GetFileIdAndSizeTest, EitherOutputMayBeLeftOut) {
  const std::wstring path = File(L"file", "123");
  std::uint64_t size = 0;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), nullptr, nullptr), 0u);
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), nullptr, &size), 0u);
  EXPECT_EQ(size, 3u);
}

TEST_F(GetFileIdAndSizeTest, FileThatSharesNothingCanBeAsked) {
  const std::wstring path = File(L"file", "123");
  const UniqueFile exclusive(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                           OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(exclusive);
  std::uint64_t size = 0;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), nullptr, &size), 0u);
  EXPECT_EQ(size, 3u);
}

TEST_F(GetFileIdAndSizeTest, DirectoryCannotBeAsked) {
  FileId id = 77;
  EXPECT_EQ(GetFileIdAndSize(directory_.path().c_str(), &id, nullptr), ERROR_ACCESS_DENIED);
  EXPECT_EQ(id, 77u);
}

TEST_F(GetFileIdAndSizeTest, MissingFileReturnsTheOpensError) {
  EXPECT_EQ(GetFileIdAndSize((directory_.path() / L"missing").c_str(), nullptr, nullptr),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetFileIdAndSize((directory_.path() / L"a\\missing").c_str(), nullptr, nullptr),
            ERROR_PATH_NOT_FOUND);
}

BOOL WINAPI FailToInform(HANDLE, BY_HANDLE_FILE_INFORMATION*) {
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(GetFileIdAndSizeTest, FailedQueryReturnsItsErrorAndLeavesTheOutputs) {
  const std::wstring path = File(L"file", "123");
  const test::ImportHook hook(__imp_GetFileInformationByHandle, &FailToInform);
  FileId id = 77;
  std::uint64_t size = 78;
  EXPECT_EQ(GetFileIdAndSize(path.c_str(), &id, &size), ERROR_CRC);
  EXPECT_EQ(id, 77u);
  EXPECT_EQ(size, 78u);
}

// A system with one volume mounted in the folder C:\mnt\vol; its name has a GUID of its own, and a
// second name that the first look-up answers.
namespace mounted {

constexpr wchar_t kMountPoint[] = L"C:\\mnt\\vol\\";
constexpr wchar_t kSecondName[] = L"\\\\?\\Volume{11111111-1111-1111-1111-111111111111}\\";
constexpr wchar_t kUniqueName[] = L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\";

std::wstring unique_name;      // what the second look-up answers
std::wstring failing_look_up;  // the name whose look-up fails

BOOL Answer(std::wstring_view answer, wchar_t* buffer, DWORD size) {
  if (answer.size() >= size) return FALSE;
  buffer[answer.copy(buffer, size)] = L'\0';
  return TRUE;
}

BOOL WINAPI GetVolumePathNameW(const wchar_t* path, wchar_t* volume_path, DWORD size) {
  EXPECT_EQ(size, 260u);
  const bool below = std::wstring_view(path).starts_with(kMountPoint);
  return Answer(below ? kMountPoint : L"C:\\", volume_path, size);
}

BOOL WINAPI FailToGetVolumePathNameW(const wchar_t*, wchar_t*, DWORD) {
  ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
  return FALSE;
}

BOOL WINAPI GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* name,
                                              DWORD size) {
  ::SetLastError(ERROR_NOT_A_REPARSE_POINT);
  const std::wstring_view asked = mount_point;
  if (asked == failing_look_up) return FALSE;
  if (asked == kMountPoint) return Answer(kSecondName, name, size);
  if (asked == kSecondName) return Answer(unique_name, name, size);
  return FALSE;
}

}  // namespace mounted

class MountedVolumeTest : public test::LogFixture {
 protected:
  MountedVolumeTest() {
    mounted::unique_name = mounted::kUniqueName;
    mounted::failing_look_up.clear();
  }

  // One look-up fails; the volume path is in the one line that is logged.
  void ExpectFailureOf(const wchar_t* look_up) {
    StartLogging(kGeneralErrorsOnly);
    mounted::failing_look_up = look_up;
    EXPECT_EQ(GetVolumeGuidForPath(L"C:\\mnt\\vol\\file", guid_), ERROR_NOT_A_REPARSE_POINT);
    EXPECT_EQ(guid_, VolumeGuid{});
    EXPECT_THAT(StopLoggingAndGetMessages(),
                ElementsAre(std::string("ERROR GetVolumeNameForVolumeMountPoint(C:\\mnt\\vol\\) "
                                        "failed: ") +
                            ErrorInfo(ERROR_NOT_A_REPARSE_POINT).text()));
  }

  test::ImportHook path_hook_{__imp_GetVolumePathNameW, &mounted::GetVolumePathNameW};
  test::ImportHook name_hook_{__imp_GetVolumeNameForVolumeMountPointW,
                              &mounted::GetVolumeNameForVolumeMountPointW};
  VolumeGuid guid_ = {};
};

TEST_F(MountedVolumeTest, PathBelowTheFolderHasTheMountedVolumesUniqueGuid) {
  EXPECT_EQ(GetVolumeGuidForPath(L"C:\\mnt\\vol\\a\\file", guid_), 0u);
  EXPECT_EQ(guid_, kGuid);
}

TEST_F(MountedVolumeTest, FailureOfTheFirstLookUpIsReturnedAndLoggedOnce) {
  ExpectFailureOf(mounted::kMountPoint);
}

TEST_F(MountedVolumeTest, FailureOfTheSecondLookUpIsReturnedAndLoggedOnce) {
  ExpectFailureOf(mounted::kSecondName);
}

TEST_F(MountedVolumeTest, UniqueNameWithoutAGuidIsReturnedAndLoggedWithItsCharacters) {
  StartLogging(kGeneralErrorsOnly);
  mounted::unique_name = L"\\\\?\\Volume{0123456x-89ab-cdef-0123-456789abcdef}\\";
  EXPECT_EQ(GetVolumeGuidForPath(L"C:\\mnt\\vol\\file", guid_), 1705u);
  EXPECT_EQ(guid_, VolumeGuid{});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(std::string("ERROR UuidFromString(0123456x-89ab-cdef-0123-"
                                      "456789abcdef) failed: ") +
                          ErrorInfo(RPC_S_INVALID_STRING_UUID).text()));
}

TEST_F(MountedVolumeTest, UniqueNameThatIsTooShortIsRefused) {
  for (const wchar_t* name :
       {L"", L"\\\\?\\", L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcde"}) {
    mounted::unique_name = name;
    EXPECT_EQ(GetVolumeGuidForPath(L"C:\\mnt\\vol\\file", guid_), 1705u) << name;
  }
}

using GetVolumeGuidForPathTest = test::LogFixture;

TEST_F(GetVolumeGuidForPathTest, FailureToFindTheVolumePathIsReturnedAndLoggedWithThePath) {
  StartLogging(kGeneralErrorsOnly);
  const test::ImportHook hook(__imp_GetVolumePathNameW, &mounted::FailToGetVolumePathNameW);
  VolumeGuid guid = {};
  EXPECT_EQ(GetVolumeGuidForPath(L"C:\\some\\file", guid), ERROR_FILENAME_EXCED_RANGE);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(std::string("ERROR GetVolumePathName(C:\\some\\file) "
                                      "failed: ") +
                          ErrorInfo(ERROR_FILENAME_EXCED_RANGE).text()));
}

// Systems differ in whether they know a volume by its own name; the test asks first.
TEST_F(GetVolumeGuidForPathTest, AnswersAsTheSystemDoesForTheVolumeOfAFile) {
  StartLogging();
  const std::wstring path = log_path();
  wchar_t volume_path[MAX_PATH];
  wchar_t name[MAX_PATH];
  wchar_t unique_name[MAX_PATH];
  ASSERT_TRUE(::GetVolumePathNameW(path.c_str(), volume_path, MAX_PATH));
  ASSERT_TRUE(::GetVolumeNameForVolumeMountPointW(volume_path, name, MAX_PATH));
  const bool knows = ::GetVolumeNameForVolumeMountPointW(name, unique_name, MAX_PATH) != 0;
  const DWORD expected = knows ? ERROR_SUCCESS : ::GetLastError();

  VolumeGuid guid = {};
  EXPECT_EQ(GetVolumeGuidForPath(path.c_str(), guid), expected);
  if (knows) {
    EXPECT_EQ(L"\\\\?\\Volume{" + GuidToString(guid) + L"}\\", unique_name);
    EXPECT_THAT(StopLogging(), IsEmpty());
  } else {
    const std::string volume(volume_path, volume_path + std::wcslen(volume_path));
    EXPECT_THAT(StopLoggingAndGetMessages(),
                ElementsAre("ERROR GetVolumeNameForVolumeMountPoint(" + volume +
                            ") failed: " + ErrorInfo(expected).text()));
  }
}

class ListVolumeGuidsTest : public test::LogFixture {
 protected:
  [[nodiscard]] std::filesystem::path cbt() const { return directory() / L"cbt"; }
  void Add(const std::wstring& file) const { test::WriteFileBytes(cbt() / file, ""); }
};

TEST_F(ListVolumeGuidsTest, ListsGuidNamesAndLogsEveryOtherEntry) {
  StartLogging(kBitmapDebugOnly);
  Add(L"01234567-89AB-CDEF-0123-456789ABCDEF\\bitmap");
  Add(L"00000000-0000-0000-0000-000000000043");  // a file counts too
  Add(L"{11111111-2222-3333-4444-555555555555}\\x");
  Add(L"00000000-0000-0000-0000-000000000000\\x");
  Add(L"readme.txt");
  Add(L"received-messages");  // the service's own
  const VolumeGuid drive_c = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0x43}};
  EXPECT_THAT(ListVolumeGuids(cbt()), UnorderedElementsAre(kGuid, drive_c));
  const std::string text = "DEBUG Entry in CBT directory is not a VolumeGuid: ";
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      UnorderedElementsAre(text + "{11111111-2222-3333-4444-555555555555}",
                           text + "00000000-0000-0000-0000-000000000000", text + "readme.txt"));
}

TEST_F(ListVolumeGuidsTest, MissingDirectoryGivesAnEmptyListSilently) {
  StartLogging();
  EXPECT_THAT(ListVolumeGuids(cbt() / L"missing"), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(ListVolumeGuidsTest, KeepsTheOrderOfTheSearch) {
  for (wchar_t digit : std::wstring(L"3019f")) {
    Add(std::wstring(1, digit) + (kGuidText + 1));
  }
  std::vector<VolumeGuid> expected;
  WIN32_FIND_DATAW entry;
  UniqueFind find(::FindFirstFileW((cbt() / L"*").c_str(), &entry));
  ASSERT_TRUE(find);
  do {
    if (const auto guid = ParseVolumeGuid(entry.cFileName)) expected.push_back(*guid);
  } while (::FindNextFileW(find.get(), &entry));
  ASSERT_EQ(expected.size(), 5u);
  EXPECT_EQ(ListVolumeGuids(cbt()), expected);
}

}  // namespace
}  // namespace zel
